#include "support/log_capture.h"

LogCapture::LogCapture(int level) {
    log_set_all_levels(level);
    m_previous = log_set_sink([this](const LogRecord& record) {
        m_entries.push_back(Entry{record.level, std::string(record.module),
                                  std::string(record.file), record.line,
                                  std::string(record.function), std::string(record.message)});
    });
}

LogCapture::~LogCapture() {
    log_set_sink(std::move(m_previous));
    log_reset_levels();
}

size_t LogCapture::Count(int level, std::string_view message) const {
    size_t count = 0;
    for (const Entry& entry : m_entries) {
        if (entry.level == level && entry.message == message) {
            ++count;
        }
    }
    return count;
}

bool LogCapture::ContainsFragment(int level, std::string_view fragment) const {
    for (const Entry& entry : m_entries) {
        if (entry.level == level && entry.message.find(fragment) != std::string::npos) {
            return true;
        }
    }
    return false;
}

std::vector<std::string> LogCapture::Messages(int level) const {
    std::vector<std::string> messages;
    for (const Entry& entry : m_entries) {
        if (entry.level == level) {
            messages.push_back(entry.message);
        }
    }
    return messages;
}

std::string LogCapture::Dump() const {
    std::string text;
    for (const Entry& entry : m_entries) {
        text += std::to_string(entry.level) + " [" + entry.module + "] " + entry.function + ": " +
                entry.message;
        if (text.empty() || text.back() != '\n') {
            text += '\n';
        }
    }
    return text;
}
