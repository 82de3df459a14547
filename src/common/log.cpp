#include "common/log.h"

#include <algorithm>
#include <array>
#include <mutex>
#include <vector>

#include <nlohmann/json.hpp>

// Big enough for a job summary that lists a few thousand switches.
size_t g_max_log_message_size = 64 * 1024;

namespace {

// A module tag without its padding blanks, so "TREES" and "TREES  " name one module.
std::string_view TrimTag(std::string_view tag) {
    while (!tag.empty() && tag.back() == ' ') {
        tag.remove_suffix(1);
    }
    return tag;
}

struct ModuleLevel {
    std::string tag;
    int level;
};

struct LogState {
    std::vector<ModuleLevel> levels;  // few modules: a linear scan beats a map here
    int default_level = kLogDefaultLevel;
    LogSink sink;
};

LogState& State() {
    static LogState state;
    return state;
}

const char* LevelMark(int level) {
    switch (level) {
        case kLogLevelError:
            return "-E-";
        case kLogLevelWarning:
            return "-W-";
        case 3:
            return "-I-";
        case kLogLevelDebug:
            return "-D-";
        default:
            return "-V-";
    }
}

}  // namespace

bool log_check_level(const char* module, int level) {
    const LogState& state = State();
    std::string_view tag = TrimTag(module ? module : "");
    for (const ModuleLevel& entry : state.levels) {
        if (entry.tag == tag) {
            return level <= entry.level;
        }
    }
    return level <= state.default_level;
}

void log_vsend(const char* module, int level, const char* file, int line, const char* function,
               const char* format, va_list args) {
    if (!log_check_level(module, level)) {
        return;
    }
    std::vector<char> buffer(std::max<size_t>(g_max_log_message_size, 1));
    int written = std::vsnprintf(buffer.data(), buffer.size(), format, args);
    size_t length =
        written < 0 ? 0 : std::min<size_t>(static_cast<size_t>(written), buffer.size() - 1);
    LogRecord record{level, module ? module : "",     file ? file : "",
                     line,  function ? function : "", std::string_view(buffer.data(), length)};
    LogState& state = State();
    if (state.sink) {
        state.sink(record);
    } else {
        std::string text = FormatLogRecordAsText(record);
        std::fwrite(text.data(), 1, text.size(), stderr);
    }
}

void log_send(const char* module, int level, const char* file, int line, const char* function,
              const char* format, ...) {
    va_list args;
    va_start(args, format);
    log_vsend(module, level, file, line, function, format, args);
    va_end(args);
}

void log_set_level(std::string_view module, int level) {
    LogState& state = State();
    std::string_view tag = TrimTag(module);
    for (ModuleLevel& entry : state.levels) {
        if (entry.tag == tag) {
            entry.level = level;
            return;
        }
    }
    state.levels.push_back({std::string(tag), level});
}

void log_set_all_levels(int level) {
    LogState& state = State();
    state.levels.clear();
    state.default_level = level;
}

void log_reset_levels() {
    log_set_all_levels(kLogDefaultLevel);
}

LogSink log_set_sink(LogSink sink) {
    LogSink previous = std::move(State().sink);
    State().sink = std::move(sink);
    return previous;
}

std::string FormatLogRecordAsText(const LogRecord& record) {
    std::string text;
    text.reserve(record.message.size() + 64);
    text += LevelMark(record.level);
    text += ' ';
    text += record.module;
    text += ' ';
    text += record.file;
    text += ':';
    text += std::to_string(record.line);
    text += ' ';
    text += record.function;
    text += ": ";
    text += record.message;
    if (text.empty() || text.back() != '\n') {
        text += '\n';
    }
    return text;
}

std::string FormatLogRecordAsJson(const LogRecord& record) {
    nlohmann::ordered_json object;
    object["level"] = record.level;
    object["module"] = std::string(record.module);
    object["file"] = std::string(record.file);
    object["line"] = record.line;
    object["function"] = std::string(record.function);
    object["message"] = std::string(record.message);
    // Names in a fabric may hold bytes that are not UTF-8: replace rather than fail.
    return object.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

LogSink MakeTextLogSink(std::FILE* out) {
    return [out](const LogRecord& record) {
        std::string text = FormatLogRecordAsText(record);
        std::fwrite(text.data(), 1, text.size(), out);
    };
}

LogSink MakeJsonLinesLogSink(std::FILE* out) {
    return [out](const LogRecord& record) {
        std::string text = FormatLogRecordAsJson(record);
        text += '\n';
        std::fwrite(text.data(), 1, text.size(), out);
    };
}
