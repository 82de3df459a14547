#include "cli/log_setup.h"

#include <cerrno>
#include <charconv>
#include <cstring>

#include "cli/cli_support.h"
#include "topology/input_error.h"

namespace aggtree::cli {

namespace {

std::string Upper(std::string text) {
    for (char& c : text) {
        if (c >= 'a' && c <= 'z') {
            c = static_cast<char>(c - 'a' + 'A');
        }
    }
    return text;
}

}  // namespace

LogLevelSetting ParseLogLevel(const std::string& text) {
    auto refuse = [&](const std::string& why) {
        throw UsageError("--log-level: bad value '" + text + "': " + why);
    };
    size_t equal = text.find('=');
    if (equal == std::string::npos) {
        refuse("expected MODULE=LEVEL, e.g. TREES=5, FABRIC=4 or all=4");
    }
    std::string module = Upper(text.substr(0, equal));
    std::string level_text = text.substr(equal + 1);
    LogLevelSetting setting;
    if (module == "ALL") {
        setting.module.clear();
    } else if (module == "TREES" || module == "FABRIC") {
        setting.module = module;
    } else {
        refuse("unknown module '" + text.substr(0, equal) + "' (known: TREES, FABRIC, all)");
    }
    int level = -1;
    auto [end, ec] =
        std::from_chars(level_text.data(), level_text.data() + level_text.size(), level);
    if (level_text.empty() || ec != std::errc() || end != level_text.data() + level_text.size() ||
        level < 0 || level > kLogLevelDetail) {
        refuse("the level must be a number from 0 (nothing) to 5 (detailed trace)");
    }
    setting.level = level;
    return setting;
}

LogSession::LogSession(const LogSettings& settings) {
    std::vector<LogLevelSetting> parsed;
    for (const std::string& text : settings.levels) {
        parsed.push_back(ParseLogLevel(text));
    }
    if (settings.format != "text" && settings.format != "jsonl") {
        throw UsageError("--log-format: bad value '" + settings.format +
                         "' (expected text or jsonl)");
    }
    if (!settings.file.empty()) {
        m_out = std::fopen(settings.file.c_str(), "w");
        if (m_out == nullptr) {
            throw InputError(settings.file, "",
                             std::string("cannot open the log file: ") + std::strerror(errno));
        }
        m_own_file = true;
    }
    m_json = settings.format == "jsonl";
    // "all" first, so that a module's own level wins whatever the order on the line.
    log_reset_levels();
    for (const LogLevelSetting& setting : parsed) {
        if (setting.module.empty()) {
            log_set_all_levels(setting.level);
        }
    }
    for (const LogLevelSetting& setting : parsed) {
        if (!setting.module.empty()) {
            log_set_level(setting.module, setting.level);
        }
    }
    m_previous = log_set_sink(m_json ? MakeJsonLinesLogSink(m_out) : MakeTextLogSink(m_out));
}

LogSession::~LogSession() {
    log_set_sink(std::move(m_previous));
    log_reset_levels();
    if (m_own_file) {
        std::fclose(m_out);
    } else {
        std::fflush(m_out);
    }
}

void LogSession::Warn(const std::string& text) const {
    if (m_json) {
        // The loader's warning, attributed to the loader (it has no source line of its own).
        log_send(kLogModuleFabric, kLogLevelWarning, "topology", 0, "LoadFabric", "%s\n",
                 text.c_str());
    } else if (log_check_level(kLogModuleFabric, kLogLevelWarning)) {
        std::fprintf(m_out, "aggtree: warning: %s\n", text.c_str());
    }
}

}  // namespace aggtree::cli
