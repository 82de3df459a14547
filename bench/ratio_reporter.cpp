#include "ratio_reporter.h"

#include <cstdio>

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
        if (run.run_type != Run::RT_Iteration || run.error_occurred) {
            continue;
        }
        std::string name = run.benchmark_name();
        std::string family = name.substr(0, name.find('/'));
        if (m_families.find(family) == m_families.end()) {
            m_order.push_back(family);
        }
        m_families[family].push_back({name, run.GetAdjustedCPUTime()});
    }
}

void RatioReporter::Finalize() {
    ConsoleReporter::Finalize();
    std::printf("\nRatios to the first size of each family (same run):\n");
    for (const std::string& family : m_order) {
        const std::vector<Entry>& entries = m_families[family];
        double base = entries.front().cpu_time;
        for (const Entry& entry : entries) {
            std::printf("  %-50s %8.2fx\n", entry.name.c_str(),
                        base > 0 ? entry.cpu_time / base : 0.0);
        }
    }
}
