// A console reporter that, after the usual table, prints each benchmark's time as a
// ratio to the first benchmark of its family ("BM_CreateTree/64" against
// "BM_CreateTree/16"), all taken in the same run.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override;
    void Finalize() override;

private:
    struct Entry {
        std::string name;
        double cpu_time;
    };
    std::map<std::string, std::vector<Entry>> m_families;
    std::vector<std::string> m_order;
};
