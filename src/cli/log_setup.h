// The build command's logging options: per-module levels, text or JSON-lines records,
// standard error or a log file.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "common/log.h"

namespace aggtree::cli {

struct LogSettings {
    std::vector<std::string> levels;  // "MODULE=LEVEL" as given to --log-level
    std::string format = "text";      // "text" or "jsonl"
    std::string file;                 // empty: standard error
};

// One parsed --log-level value.  `module` is empty for "all".
struct LogLevelSetting {
    std::string module;
    int level = kLogDefaultLevel;
};

// Parses "TREES=5", "FABRIC=4" or "all=4" (module names in any case, levels 0 to 5);
// throws UsageError naming the option and the value.
LogLevelSetting ParseLogLevel(const std::string& text);

// Applies the settings for its lifetime: levels, sink and log file; restores the
// default levels and sink when it ends.  Throws UsageError for a bad level and
// InputError for a log file that cannot be opened.
class LogSession {
public:
    explicit LogSession(const LogSettings& settings);
    ~LogSession();
    LogSession(const LogSession&) = delete;
    LogSession& operator=(const LogSession&) = delete;

    // Reports a warning of the fabric loader: a FABRIC warning record in the JSON-lines
    // format (so every line stays one object), else a plain "aggtree: warning:" line.
    void Warn(const std::string& text) const;

private:
    std::FILE* m_out = stderr;
    bool m_own_file = false;
    bool m_json = false;
    LogSink m_previous;
};

}  // namespace aggtree::cli
