// Captures every log message for the length of a test, at the levels it asks for.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "common/log.h"

class LogCapture {
public:
    struct Entry {
        int level;
        std::string module;
        std::string file;
        int line;
        std::string function;
        std::string message;
    };

    // Sets every module to `level` and collects what is logged.
    explicit LogCapture(int level = kLogLevelDetail);
    // Restores the previous sink and the default levels.
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    const std::vector<Entry>& Entries() const { return m_entries; }
    // Number of messages at `level` whose text is exactly `message`.
    size_t Count(int level, std::string_view message) const;
    // True when some message at `level` is exactly `message`.
    bool Contains(int level, std::string_view message) const { return Count(level, message) > 0; }
    // True when some message at `level` contains `fragment`.
    bool ContainsFragment(int level, std::string_view fragment) const;
    // The texts logged at `level`, in order.
    std::vector<std::string> Messages(int level) const;
    // Every entry as one text, for failure output.
    std::string Dump() const;
    void Clear() { m_entries.clear(); }

private:
    std::vector<Entry> m_entries;
    LogSink m_previous;
};
