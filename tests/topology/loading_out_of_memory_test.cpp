// Running out of memory while loading is no bad input.  Every allocation that loading a
// fabric file, a dump with its group map, or a job file makes is failed in turn: each
// failure reaches the caller as LoadingOutOfMemory naming the file, never as an
// InputError, and a failure that loading absorbs changes nothing in what it loads.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <typeinfo>

#include "description_compare.h"
#include "support/failing_allocation.h"
#include "topology/fabric_file.h"
#include "topology/ibnetdiscover.h"
#include "topology/input_error.h"
#include "topology/job_file.h"

namespace aggtree {
namespace {

std::filesystem::path ExamplePath(const std::string& name) {
    const char* dir = std::getenv("AGGTREE_SOURCE_DIR");
    std::filesystem::path root =
        dir != nullptr && *dir != '\0'
            ? std::filesystem::path(dir)
            : std::filesystem::path(__FILE__).parent_path().parent_path().parent_path();
    return root / "examples" / name;
}

std::string ReadExample(const std::string& name) {
    std::ifstream in(ExamplePath(name), std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Fails allocation 1, 2, ... of `load` until a run no longer reaches the failing one.
// `same(result)` tells whether a run that absorbed its failure loaded what it should.
template <typename Load, typename Same>
void FailEveryAllocation(const Load& load, const Same& same, const std::string& file) {
    size_t reported = 0;
    size_t number = 1;
    for (;; ++number) {
        FailAllocationNumber(number);
        try {
            auto result = load();
            const bool failed = ArmedAllocationFailed();
            FailAllocationNumber(0);
            if (!failed) {
                break;  // every allocation has been failed once
            }
            EXPECT_TRUE(same(result)) << "allocation " << number << " was absorbed with a change";
        } catch (const LoadingOutOfMemory& error) {
            FailAllocationNumber(0);
            EXPECT_EQ(error.file(), file) << "allocation " << number;
            ++reported;
        } catch (const std::exception& error) {
            FailAllocationNumber(0);
            ADD_FAILURE() << "allocation " << number << " failed as " << typeid(error).name()
                          << ": " << error.what();
        }
    }
    EXPECT_GT(reported, number / 2) << "of " << number << " allocations";
}

TEST(LoadingOutOfMemory, EveryAllocationOfAFabricFileIsReportedNamingIt) {
    const std::string text = ReadExample("fat-tree.json");
    const FabricDescription expected = ParseFabricJson(text, "fat-tree.json");
    FailEveryAllocation([&] { return ParseFabricJson(text, "fat-tree.json"); },
                        [&](const FabricDescription& loaded) {
                            return DescriptionDifferences(loaded, expected).empty();
                        },
                        "fat-tree.json");
}

TEST(LoadingOutOfMemory, EveryAllocationOfADumpWithItsGroupMapIsReportedNamingIt) {
    const std::string dump = ReadExample("two-level.ibnetdiscover");
    const std::string groups = ReadExample("two-level.groups");
    const std::string file = "two-level.ibnetdiscover";
    const std::string groups_file = "two-level.groups";
    auto load = [&] { return ParseIbnetdiscover(dump, file, groups, groups_file); };
    const FabricDescription expected = load();
    FailEveryAllocation(
        load,
        [&](const FabricDescription& loaded) {
            return DescriptionDifferences(loaded, expected).empty();
        },
        "two-level.ibnetdiscover");
}

TEST(LoadingOutOfMemory, EveryAllocationOfLoadingFromDiskIsReportedNamingTheFile) {
    const std::string path = ExamplePath("dragonfly-plus.json").string();
    const FabricDescription expected = LoadFabric(path);
    FailEveryAllocation([&] { return LoadFabric(path); },
                        [&](const FabricDescription& loaded) {
                            return DescriptionDifferences(loaded, expected).empty();
                        },
                        path);
}

TEST(LoadingOutOfMemory, EveryAllocationOfAJobFileIsReportedNamingIt) {
    const Fabric fabric(ParseFabricJson(ReadExample("fat-tree.json"), "fat-tree.json"));
    const std::string path = ExamplePath("fat-tree-job.json").string();
    const JobDescription expected = LoadJobFile(path, fabric);
    FailEveryAllocation([&] { return LoadJobFile(path, fabric); },
                        [&](const JobDescription& loaded) {
                            bool same_ports = loaded.ports.size() == expected.ports.size();
                            for (size_t i = 0; same_ports && i < loaded.ports.size(); ++i) {
                                same_ports =
                                    loaded.ports[i].port_guid == expected.ports[i].port_guid &&
                                    loaded.ports[i].plane == expected.ports[i].plane;
                            }
                            return same_ports && loaded.job_id == expected.job_id;
                        },
                        path);
}

}  // namespace
}  // namespace aggtree
