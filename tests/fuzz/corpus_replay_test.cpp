// Every input of the fuzz corpus (fuzz/corpus/<target>/: the seeds, and every input that
// once crashed, hung or broke a check) replayed through the fuzz targets' own entries,
// in the ordinary build: what the fuzzers found stays fixed.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fuzz/fuzz_entries.h"

namespace {

std::filesystem::path CorpusDir(const std::string& target) {
    const char* dir = std::getenv("AGGTREE_SOURCE_DIR");
    std::filesystem::path root =
        dir != nullptr && *dir != '\0'
            ? std::filesystem::path(dir)
            : std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
    return root / "fuzz" / "corpus" / target;
}

std::string ReadBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream bytes;
    bytes << in.rdbuf();
    return bytes.str();
}

using Entry = std::string (*)(const uint8_t*, size_t);

void ReplayCorpus(const std::string& target, Entry entry, size_t at_least) {
    size_t replayed = 0;
    for (const auto& file : std::filesystem::directory_iterator(CorpusDir(target))) {
        if (!file.is_regular_file()) {
            continue;
        }
        const std::string bytes = ReadBytes(file.path());
        const std::string broken =
            entry(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        EXPECT_EQ(broken, "") << file.path().filename().string();
        ++replayed;
    }
    EXPECT_GE(replayed, at_least) << "inputs in " << CorpusDir(target);
}

TEST(FuzzCorpus, TheFabricFileReaderHoldsOnEveryInput) {
    ReplayCorpus("fabric_file", aggtree::fuzz::FuzzFabricFile, 10);
}

TEST(FuzzCorpus, TheJobFileReaderHoldsOnEveryInput) {
    ReplayCorpus("job_file", aggtree::fuzz::FuzzJobFile, 5);
}

TEST(FuzzCorpus, TheIbnetdiscoverImportHoldsOnEveryInput) {
    ReplayCorpus("ibnetdiscover", aggtree::fuzz::FuzzIbnetdiscover, 10);
}

TEST(FuzzCorpus, TheBuilderHoldsOnEveryInput) {
    ReplayCorpus("create_tree", aggtree::fuzz::FuzzCreateTree, 5);
}

}  // namespace
