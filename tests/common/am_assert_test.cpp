// Reporting of broken invariants: one error line, then an exception with the message.
#include "common/am_assert.h"

#include <gtest/gtest.h>

#include <exception>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "tree_on_demand/trees_log.h"

namespace {

void CheckValue(int value) {
    AM_ASSERT_AT("TREES  ", "unit_file", "CheckValue", value == 2, "value %d is not %s", value,
                 "two");
}

TEST(AMAssert, FailedConditionIsLoggedThenThrownWithTheBareMessage) {
    LogCapture log;
    try {
        CheckValue(3);
        FAIL() << "no exception";
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "value 3 is not two");
    }
    ASSERT_EQ(log.Entries().size(), 1u) << log.Dump();
    const LogCapture::Entry& entry = log.Entries()[0];
    EXPECT_EQ(entry.level, 1);
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "unit_file");
    EXPECT_EQ(entry.function, "CheckValue");
    EXPECT_EQ(entry.message, "-A- assert(value == 2) failed. value 3 is not two");
}

TEST(AMAssert, HoldingConditionNeitherLogsNorThrows) {
    LogCapture log;
    EXPECT_NO_THROW(CheckValue(2));
    EXPECT_TRUE(log.Entries().empty()) << log.Dump();
}

TEST(AMAssert, ExceptionIsAnAMAssertException) {
    LogCapture log;
    EXPECT_THROW(CheckValue(0), AMAssertException);
}

TEST(AMAssert, ConditionIsEvaluatedOnce) {
    LogCapture log;
    int evaluations = 0;
    auto count = [&evaluations]() {
        ++evaluations;
        return false;
    };
    EXPECT_ANY_THROW(AM_ASSERT_AT("TREES  ", "f", "fn", count(), "counted"));
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(log.Messages(1), std::vector<std::string>{"-A- assert(count()) failed. counted"});
}

TEST(AMAssert, MessageWithoutArgumentsIsKeptAsWritten) {
    LogCapture log;
    try {
        AM_ASSERT_AT("FABRIC ", "f", "fn", 1 > 2, "plain text, no arguments");
        FAIL() << "no exception";
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(), "plain text, no arguments");
    }
    ASSERT_EQ(log.Entries().size(), 1u);
    EXPECT_EQ(log.Entries()[0].module, "FABRIC ");
}

TEST(AMAssert, FailureStillThrowsWhenErrorsAreSwitchedOff) {
    // The level gate applies to the report, never to the throw.
    LogCapture log(0);
    EXPECT_THROW(CheckValue(5), AMAssertException);
    EXPECT_TRUE(log.Entries().empty());
}

TEST(AMAssert, DoThrowFormatsTheMessage) {
    try {
        am_assert_do_throw("leaf %s has %u children", "sw1", 3u);
        FAIL() << "no exception";
    } catch (const AMAssertException& error) {
        EXPECT_STREQ(error.what(), "leaf sw1 has 3 children");
    }
}

TEST(AMAssert, ThrownMessageIsCutToTheMaximumMessageSize) {
    size_t saved = g_max_log_message_size;
    g_max_log_message_size = 6;
    std::string what;
    try {
        am_assert_do_throw("%s", "abcdefghij");
    } catch (const std::exception& error) {
        what = error.what();
    }
    g_max_log_message_size = saved;
    EXPECT_EQ(what, "abcde");
}

void BuilderStep(const void* leaf_tree_node) {
    TREES_ASSERT(leaf_tree_node,
                 "Leaf node: %s doesn't have default tree node that is required for quasi fat "
                 "tree algorithm",
                 "sw1 GUID:0x1001");
}

TEST(AMAssert, BuilderAssertionsUseTheBuilderModuleAndSource) {
    LogCapture log;
    try {
        BuilderStep(nullptr);
        FAIL() << "no exception";
    } catch (const std::exception& error) {
        EXPECT_STREQ(error.what(),
                     "Leaf node: sw1 GUID:0x1001 doesn't have default tree node that is required "
                     "for quasi fat tree algorithm");
    }
    ASSERT_EQ(log.Entries().size(), 1u);
    const LogCapture::Entry& entry = log.Entries()[0];
    EXPECT_EQ(entry.level, 1);
    EXPECT_EQ(entry.module, "TREES  ");
    EXPECT_EQ(entry.file, "tree_on_demand");
    EXPECT_EQ(entry.function, "BuilderStep");
    EXPECT_EQ(entry.message,
              "-A- assert(leaf_tree_node) failed. Leaf node: sw1 GUID:0x1001 doesn't have default "
              "tree node that is required for quasi fat tree algorithm");
}

}  // namespace
