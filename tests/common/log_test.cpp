// Module levels, sinks and record formats of the manager's logging.
#include "common/log.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdio>
#include <string>
#include <vector>

#include "support/log_capture.h"

namespace {

// Resets levels, sink and message size around every test.
class Logging : public ::testing::Test {
protected:
    Logging() : m_saved_size(g_max_log_message_size) { log_reset_levels(); }
    ~Logging() override {
        g_max_log_message_size = m_saved_size;
        log_set_sink({});
        log_reset_levels();
    }

private:
    size_t m_saved_size;
};

// Runs `write` with a sink made for a temporary file and returns the file's content.
template <typename MakeSink, typename Write>
std::string CaptureFile(MakeSink make_sink, Write write) {
    std::FILE* file = std::tmpfile();
    if (file == nullptr) {
        ADD_FAILURE() << "no temporary file";
        return "";
    }
    write(make_sink(file));
    std::fflush(file);
    std::rewind(file);
    std::string text;
    char buffer[256];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof(buffer), file)) > 0) {
        text.append(buffer, n);
    }
    std::fclose(file);
    return text;
}

TEST_F(Logging, EveryModuleStartsAtLevelTwo) {
    EXPECT_EQ(kLogDefaultLevel, 2);
    for (const char* module : {"TREES  ", "FABRIC ", "OTHER  "}) {
        EXPECT_TRUE(log_check_level(module, kLogLevelError)) << module;
        EXPECT_TRUE(log_check_level(module, kLogLevelWarning)) << module;
        EXPECT_FALSE(log_check_level(module, 3)) << module;
        EXPECT_FALSE(log_check_level(module, kLogLevelDebug)) << module;
    }
}

TEST_F(Logging, LevelIsSetPerModule) {
    log_set_level("TREES", kLogLevelDebug);
    EXPECT_TRUE(log_check_level("TREES  ", kLogLevelDebug));
    EXPECT_FALSE(log_check_level("TREES  ", kLogLevelDetail));
    EXPECT_FALSE(log_check_level("FABRIC ", kLogLevelDebug));
    EXPECT_TRUE(log_check_level("FABRIC ", kLogLevelWarning));
}

TEST_F(Logging, TagWithAndWithoutPaddingNameOneModule) {
    log_set_level("TREES", kLogLevelDetail);
    EXPECT_TRUE(log_check_level("TREES  ", kLogLevelDetail));
    EXPECT_TRUE(log_check_level("TREES", kLogLevelDetail));
    log_set_level("TREES  ", kLogLevelError);
    EXPECT_FALSE(log_check_level("TREES", kLogLevelWarning));
    EXPECT_FALSE(log_check_level("TREES  ", kLogLevelWarning));
    EXPECT_TRUE(log_check_level("TREES  ", kLogLevelError));
}

TEST_F(Logging, ModuleNamesAreCaseSensitiveTags) {
    log_set_level("TREES", kLogLevelDetail);
    EXPECT_FALSE(log_check_level("TREESX ", kLogLevelDetail));
    EXPECT_FALSE(log_check_level("TREE   ", kLogLevelDetail));
}

TEST_F(Logging, SettingAllLevelsOverridesEveryModule) {
    log_set_level("TREES", kLogLevelError);
    log_set_all_levels(kLogLevelDetail);
    EXPECT_TRUE(log_check_level("TREES  ", kLogLevelDetail));
    EXPECT_TRUE(log_check_level("FABRIC ", kLogLevelDetail));
    EXPECT_TRUE(log_check_level("NEVERSEEN", kLogLevelDetail));
    log_set_all_levels(0);
    EXPECT_FALSE(log_check_level("TREES  ", kLogLevelError));
}

TEST_F(Logging, ResetRestoresTheDefaultEverywhere) {
    log_set_level("FABRIC", kLogLevelDetail);
    log_set_all_levels(kLogLevelDebug);
    log_set_level("TREES", kLogLevelError);
    log_reset_levels();
    EXPECT_TRUE(log_check_level("TREES  ", kLogLevelWarning));
    EXPECT_FALSE(log_check_level("FABRIC ", kLogLevelDebug));
}

TEST_F(Logging, MessagesAboveTheModuleLevelAreNotWritten) {
    std::vector<std::string> seen;
    log_set_sink([&](const LogRecord& record) { seen.emplace_back(record.message); });
    log_set_level("TREES", kLogLevelDebug);
    log_send("TREES  ", kLogLevelDebug, "f", 1, "fn", "shown %d", 4);
    log_send("TREES  ", kLogLevelDetail, "f", 2, "fn", "hidden %d", 5);
    log_send("FABRIC ", kLogLevelDebug, "f", 3, "fn", "hidden too");
    log_send("FABRIC ", kLogLevelError, "f", 4, "fn", "error");
    EXPECT_EQ(seen, (std::vector<std::string>{"shown 4", "error"}));
}

TEST_F(Logging, SinkReceivesEveryFieldOfTheRecord) {
    LogCapture log(kLogLevelDetail);
    log_send("TREES  ", kLogLevelWarning, "tree_on_demand", 321, "FindTreeCenter", "x=%s y=%u\n",
             "abc", 7u);
    ASSERT_EQ(log.Entries().size(), 1u);
    const LogCapture::Entry& entry = log.Entries()[0];
    EXPECT_EQ(entry.level, kLogLevelWarning);
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "tree_on_demand");
    EXPECT_EQ(entry.line, 321);
    EXPECT_EQ(entry.function, "FindTreeCenter");
    EXPECT_EQ(entry.message, "x=abc y=7\n");
}

TEST_F(Logging, SettingASinkGivesBackThePreviousOne) {
    int first_calls = 0;
    int second_calls = 0;
    LogSink none = log_set_sink([&](const LogRecord&) { ++first_calls; });
    EXPECT_FALSE(static_cast<bool>(none));
    LogSink first = log_set_sink([&](const LogRecord&) { ++second_calls; });
    ASSERT_TRUE(static_cast<bool>(first));
    log_send("TREES  ", kLogLevelError, "f", 1, "fn", "one");
    EXPECT_EQ(first_calls, 0);
    EXPECT_EQ(second_calls, 1);
    log_set_sink(first);
    log_send("TREES  ", kLogLevelError, "f", 1, "fn", "two");
    EXPECT_EQ(first_calls, 1);
    EXPECT_EQ(second_calls, 1);
}

TEST_F(Logging, LongMessagesAreCutToTheMaximumSizeLessOne) {
    LogCapture log(kLogLevelDetail);
    g_max_log_message_size = 8;
    log_send("TREES  ", kLogLevelError, "f", 1, "fn", "%s", "abcdefghijkl");
    log_send("TREES  ", kLogLevelError, "f", 1, "fn", "%s", "abcdefg");
    log_send("TREES  ", kLogLevelError, "f", 1, "fn", "%s", "abcdefgh");
    EXPECT_EQ(log.Messages(kLogLevelError),
              (std::vector<std::string>{"abcdefg", "abcdefg", "abcdefg"}));
}

TEST_F(Logging, DefaultMessageSizeHoldsLongSummaries) {
    LogCapture log(kLogLevelDetail);
    std::string long_text(10000, 'x');
    log_send("TREES  ", kLogLevelError, "f", 1, "fn", "%s", long_text.c_str());
    ASSERT_EQ(log.Entries().size(), 1u);
    EXPECT_EQ(log.Entries()[0].message, long_text);
}

TEST_F(Logging, TextRecordNamesLevelModulePositionAndMessage) {
    LogRecord record{kLogLevelError, "TREES  ", "am_bit_array", 42, "SetBit2False", "oops"};
    EXPECT_EQ(FormatLogRecordAsText(record), "-E- TREES   am_bit_array:42 SetBit2False: oops\n");
    record.level = kLogLevelWarning;
    EXPECT_EQ(FormatLogRecordAsText(record).substr(0, 4), "-W- ");
    record.level = kLogLevelDebug;
    EXPECT_EQ(FormatLogRecordAsText(record).substr(0, 4), "-D- ");
    record.level = kLogLevelDetail;
    EXPECT_EQ(FormatLogRecordAsText(record).substr(0, 4), "-V- ");
}

TEST_F(Logging, TextRecordEndsWithExactlyOneLineEnd) {
    LogRecord record{kLogLevelDebug, "FABRIC ", "fabric", 7, "Load", "done\n"};
    EXPECT_EQ(FormatLogRecordAsText(record), "-D- FABRIC  fabric:7 Load: done\n");
}

TEST_F(Logging, TextSinkWritesOneLinePerMessage) {
    std::string text = CaptureFile(MakeTextLogSink, [](LogSink sink) {
        log_set_sink(std::move(sink));
        log_send("TREES  ", kLogLevelError, "tree_on_demand", 10, "CreateTree", "failed %d\n", 1);
        log_send("TREES  ", kLogLevelWarning, "tree_on_demand", 11, "CreateTree", "odd");
        log_set_sink({});
    });
    EXPECT_EQ(text,
              "-E- TREES   tree_on_demand:10 CreateTree: failed 1\n"
              "-W- TREES   tree_on_demand:11 CreateTree: odd\n");
}

TEST_F(Logging, JsonRecordHasExactlyTheSixKeysInOrder) {
    LogRecord record{kLogLevelError, "TREES  ", "am_bit_array", 42, "SetBit2False", "line one\n"};
    nlohmann::ordered_json object = nlohmann::ordered_json::parse(FormatLogRecordAsJson(record));
    std::vector<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it) {
        keys.push_back(it.key());
    }
    EXPECT_EQ(keys,
              (std::vector<std::string>{"level", "module", "file", "line", "function", "message"}));
    EXPECT_EQ(object["level"], 1);
    EXPECT_EQ(object["module"], "TREES  ");  // seven characters, blanks kept
    EXPECT_EQ(object["module"].get<std::string>().size(), 7u);
    EXPECT_EQ(object["file"], "am_bit_array");
    EXPECT_EQ(object["line"], 42);
    EXPECT_EQ(object["function"], "SetBit2False");
    EXPECT_EQ(object["message"], "line one\n");  // the line end is part of the text
}

TEST_F(Logging, JsonRecordIsOneLine) {
    LogRecord record{kLogLevelError, "TREES  ", "f", 1, "fn", "a\nb\n"};
    EXPECT_EQ(FormatLogRecordAsJson(record).find('\n'), std::string::npos);
}

TEST_F(Logging, JsonRecordSurvivesBytesThatAreNotUtf8) {
    LogRecord record{kLogLevelError, "TREES  ", "f", 1, "fn", "sw\xff\xfe"};
    std::string text;
    ASSERT_NO_THROW(text = FormatLogRecordAsJson(record));
    nlohmann::json object = nlohmann::json::parse(text);
    EXPECT_EQ(object["message"].get<std::string>().substr(0, 2), "sw");
}

TEST_F(Logging, JsonLinesSinkWritesOneObjectPerLine) {
    std::string text = CaptureFile(MakeJsonLinesLogSink, [](LogSink sink) {
        log_set_sink(std::move(sink));
        log_send("TREES  ", kLogLevelError, "tree_on_demand", 10, "CreateTree", "first\n");
        log_send("FABRIC ", kLogLevelWarning, "fabric", 11, "Load", "second");
        log_set_sink({});
    });
    ASSERT_FALSE(text.empty());
    EXPECT_EQ(text.back(), '\n');
    size_t split = text.find('\n');
    ASSERT_NE(split, std::string::npos);
    nlohmann::json first = nlohmann::json::parse(text.substr(0, split));
    nlohmann::json second = nlohmann::json::parse(text.substr(split + 1));
    EXPECT_EQ(first["message"], "first\n");
    EXPECT_EQ(first["module"], "TREES  ");
    EXPECT_EQ(first["level"], 1);
    EXPECT_EQ(second["message"], "second");
    EXPECT_EQ(second["module"], "FABRIC ");
    EXPECT_EQ(second["line"], 11);
    EXPECT_EQ(text.find('\n', split + 1), text.size() - 1);
}

}  // namespace
