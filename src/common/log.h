// Logging of the aggregation manager: per-module levels and a pluggable sink.
//
// Every message carries a seven-character module tag ("TREES  ", "FABRIC "), a level
// (1 error, 2 warning, 4 debug trace, 5 detailed trace; 3 is unused), the source
// position and a printf-style text.  Callers gate trace messages with
// log_check_level() before building their arguments; log_send() applies the same gate
// again, so a message above its module's level is never written.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>

// Largest formatted message text; longer texts are cut to this many bytes minus one.
extern size_t g_max_log_message_size;

// Module tags, seven characters each so that columns line up.
inline constexpr const char* kLogModuleTrees = "TREES  ";
inline constexpr const char* kLogModuleFabric = "FABRIC ";

inline constexpr int kLogLevelError = 1;
inline constexpr int kLogLevelWarning = 2;
inline constexpr int kLogLevelDebug = 4;
inline constexpr int kLogLevelDetail = 5;
// Level every module starts at.
inline constexpr int kLogDefaultLevel = 2;

// One message as handed to a sink.
struct LogRecord {
    int level;
    std::string_view module;
    std::string_view file;
    int line;
    std::string_view function;
    std::string_view message;
};

using LogSink = std::function<void(const LogRecord&)>;

// True when messages of `module` at `level` are wanted.
bool log_check_level(const char* module, int level);

// Formats and writes one message when log_check_level(module, level) holds.
void log_send(const char* module, int level, const char* file, int line, const char* function,
              const char* format, ...) __attribute__((format(printf, 6, 7)));

// va_list form of log_send.
void log_vsend(const char* module, int level, const char* file, int line, const char* function,
               const char* format, va_list args) __attribute__((format(printf, 6, 0)));

// Sets the level of one module; the tag is compared without its trailing blanks.
void log_set_level(std::string_view module, int level);

// Sets the level of every module, known or not yet seen.
void log_set_all_levels(int level);

// Back to kLogDefaultLevel for every module.
void log_reset_levels();

// Installs the sink that receives every message; an empty sink restores the default
// (human text on standard error).  Returns the sink that was installed before.
LogSink log_set_sink(LogSink sink);

// Human-readable lines: "-E- TREES   file:line function: message".
LogSink MakeTextLogSink(std::FILE* out);

// One JSON object per message with the keys level, module, file, line, function, message.
LogSink MakeJsonLinesLogSink(std::FILE* out);

// Renders one record the way MakeJsonLinesLogSink writes it (without the line end).
std::string FormatLogRecordAsJson(const LogRecord& record);

// Renders one record the way MakeTextLogSink writes it (with exactly one line end).
std::string FormatLogRecordAsText(const LogRecord& record);
