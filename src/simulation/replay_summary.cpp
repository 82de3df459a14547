#include "simulation/replay_summary.h"

#include <algorithm>
#include <cmath>

namespace aggtree {

void ReasonTally::Add(const std::string& reason, const std::string& example, uint64_t job,
                      double time) {
    auto [place, fresh] = m_index.emplace(reason, m_reasons.size());
    if (fresh) {
        m_reasons.push_back(ReasonCount{reason, 0, job, time, example});
    }
    ++m_reasons[place->second].count;
    ++m_total;
}

void ReasonTally::AddMany(const std::string& reason, uint64_t count) {
    if (count == 0) {
        return;
    }
    auto [place, fresh] = m_index.emplace(reason, m_reasons.size());
    if (fresh) {
        m_reasons.push_back(ReasonCount{reason, 0, std::nullopt, 0, reason});
    }
    m_reasons[place->second].count += count;
    m_total += count;
}

std::vector<ReasonCount> ReasonTally::Reasons() const {
    std::vector<ReasonCount> reasons = m_reasons;
    std::stable_sort(reasons.begin(), reasons.end(),
                     [](const ReasonCount& a, const ReasonCount& b) { return a.count > b.count; });
    return reasons;
}

namespace {

std::string TrimLine(std::string text) {
    const char* blanks = " \t\r\n";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

// The text without its quoted names (" 'spine-1'") and without what follows a colon, so
// that one kind of refusal reads the same whichever switch it names.
std::string GeneralReason(const std::string& text) {
    std::string reason;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\'') {
            size_t close = text.find('\'', i + 1);
            if (close != std::string::npos) {
                while (!reason.empty() && reason.back() == ' ') {
                    reason.pop_back();
                }
                i = close;
                continue;
            }
        }
        if (text[i] == ':') {
            break;
        }
        reason += text[i];
    }
    return TrimLine(reason);
}

}  // namespace

RefusalReason ClassifyRefusal(const std::string& error_text,
                              const std::vector<std::string>& logged_errors) {
    std::string first_line = TrimLine(error_text.substr(0, error_text.find('\n')));
    if (!first_line.empty()) {
        std::string detail = TrimLine(error_text);
        std::replace(detail.begin(), detail.end(), '\n', ' ');
        return {GeneralReason(first_line), detail};
    }
    for (const std::string& logged : logged_errors) {
        std::string line = TrimLine(logged);
        if (!line.empty()) {
            return {GeneralReason(line), line};
        }
    }
    return {"the builder gave no reason", "no error text and no error logged by the builder"};
}

LatencySummary SummariseLatency(std::vector<double>& samples_us) {
    LatencySummary summary;
    summary.requests = samples_us.size();
    if (samples_us.empty()) {
        return summary;
    }
    std::sort(samples_us.begin(), samples_us.end());
    const size_t n = samples_us.size();
    summary.median_us =
        n % 2 == 1 ? samples_us[n / 2] : (samples_us[n / 2 - 1] + samples_us[n / 2]) / 2;
    // The nearest-rank 99th percentile.
    size_t rank = static_cast<size_t>(std::ceil(0.99 * static_cast<double>(n)));
    summary.p99_us = samples_us[std::max<size_t>(rank, 1) - 1];
    summary.max_us = samples_us.back();
    return summary;
}

double ReplaySummary::AggregatedShare() const {
    return node_hours > 0 ? aggregated_node_hours / node_hours : 0;
}

}  // namespace aggtree
