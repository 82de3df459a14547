// Long service: one creator and one model serve request after request, as inside a
// manager that runs for months.  Random jobs on a generated fat tree and on a
// Dragonfly+ fabric, some refused on purpose (an excluded leaf, every tree id taken, a
// children limit of one, an unknown host, no port at all).  After every request the
// switches hold the tree nodes of that request only, a served tree keeps every
// invariant, and a refusal on purpose is a refusal (status 1, no internal failure).
// Resident memory stays flat after a warm-up.
//
// 10,000 requests per fabric; AGGTREE_LONG_SERVICE_REQUESTS sets another number (the
// memory checker's run in CI takes a few hundred).  Under the sanitizers 2,000 requests
// are served and resident memory is not checked: their allocator keeps freed memory in
// quarantine on purpose.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include "common/log.h"
#include "support/fabric_sketch.h"
#include "support/service_run.h"
#include "support/tree_invariants.h"
#include "topology/generators.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

size_t RequestCount() {
    if (const char* count = std::getenv("AGGTREE_LONG_SERVICE_REQUESTS")) {
        return std::strtoul(count, nullptr, 10);
    }
#ifdef AGGTREE_SANITIZED
    return 2000;
#else
    return 10000;
#endif
}

bool MemoryIsChecked() {
#ifdef AGGTREE_SANITIZED
    return false;
#else
    return std::getenv("AGGTREE_LONG_SERVICE_REQUESTS") == nullptr;
#endif
}

// Resident memory of this process in bytes.
size_t ResidentBytes() {
    std::ifstream statm("/proc/self/statm");
    size_t size = 0;
    size_t resident = 0;
    statm >> size >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

enum class Kind {
    kServed,
    kExcludedLeaf,
    kEveryTreeIdTaken,
    kChildrenLimit,
    kUnknownHost,
    kNoPort
};

const char* KindName(Kind kind) {
    switch (kind) {
        case Kind::kServed:
            return "served";
        case Kind::kExcludedLeaf:
            return "excluded leaf";
        case Kind::kEveryTreeIdTaken:
            return "every tree id taken";
        case Kind::kChildrenLimit:
            return "children limit";
        case Kind::kUnknownHost:
            return "unknown host";
        case Kind::kNoPort:
            return "no port";
    }
    return "?";
}

struct ServiceFigures {
    size_t requests = 0;
    size_t served = 0;
    size_t refused = 0;
    size_t resident_after_warm_up = 0;
    size_t resident_at_end = 0;
    size_t resident_most = 0;
};

class LongService {
public:
    explicit LongService(const FabricDescription& description)
        : m_fabric(description), m_random(20240601) {}

    // Serves `count` requests; checks every one.  Stops at the first broken check.
    ServiceFigures Run(size_t count) {
        ServiceFigures figures;
        const size_t warm_up = std::max<size_t>(count / 10, 1);
        for (size_t i = 0; i < count && !::testing::Test::HasFailure(); ++i) {
            const Kind kind = PickKind();
            const int status = Request(kind, i);
            ++figures.requests;
            (status == 0 ? figures.served : figures.refused) += 1;
            if (i + 1 == warm_up) {
                figures.resident_after_warm_up = ResidentBytes();
            }
            if (i + 1 >= warm_up && (i + 1) % 100 == 0) {
                figures.resident_most = std::max(figures.resident_most, ResidentBytes());
            }
        }
        figures.resident_at_end = ResidentBytes();
        figures.resident_most = std::max(figures.resident_most, figures.resident_at_end);
        return figures;
    }

private:
    Kind PickKind() {
        const uint32_t roll = m_random() % 100;
        if (roll < 80) {
            return Kind::kServed;
        }
        static constexpr Kind kRefusals[] = {Kind::kExcludedLeaf, Kind::kEveryTreeIdTaken,
                                             Kind::kChildrenLimit, Kind::kUnknownHost,
                                             Kind::kNoPort};
        return kRefusals[roll % 5];
    }

    // A random job of 1 to 24 distinct hosts; at least two leaves for `two_leaves`.
    std::vector<const HostRecord*> PickHosts(bool two_leaves) {
        const std::vector<HostRecord>& hosts = m_fabric.fabric().Hosts();
        for (;;) {
            const size_t size = (two_leaves ? 2 : 1) + m_random() % 23;
            std::set<size_t> picked;
            while (picked.size() < size) {
                picked.insert(m_random() % hosts.size());
            }
            std::vector<const HostRecord*> job;
            std::set<const AggNodeFabricInfo*> leaves;
            for (size_t index : picked) {
                job.push_back(&hosts[index]);
                leaves.insert(hosts[index].attached_switch);
            }
            if (!two_leaves || leaves.size() >= 2) {
                return job;
            }
        }
    }

    int Request(Kind kind, size_t number) {
        const std::string what = std::string(KindName(kind)) + " request " + std::to_string(number);
        ServedRequest request;
        const ZeltaExtJobId job_id{number % 97, 0, "svc"};
        std::vector<const HostRecord*> hosts;
        if (kind != Kind::kNoPort) {
            hosts = PickHosts(kind == Kind::kChildrenLimit);
        }
        for (const HostRecord* host : hosts) {
            request.ports.push_back(PortData{host->guid, host->plane});
        }
        if (kind == Kind::kUnknownHost) {
            request.ports.push_back(PortData{0xdead0000 + number, 0});
        }

        // The refusal's cause, in place for this request only.
        AggNodeFabricInfo* excluded =
            kind == Kind::kExcludedLeaf ? hosts.front()->attached_switch : nullptr;
        std::set<uint16_t> every_id;
        for (uint32_t id = 0; id <= m_fabric.fabric().max_tree_id; ++id) {
            every_id.insert(static_cast<uint16_t>(id));
        }
        const OptionInfo options = g_option_info;
        Serve(
            m_creator, request, JobResource{}, job_id,
            [&] {
                if (excluded != nullptr) {
                    excluded->is_excluded = true;
                }
                if (kind == Kind::kEveryTreeIdTaken) {
                    m_fabric.fabric().SetJobTreeIds(job_id.ToString(), every_id);
                }
                if (kind == Kind::kChildrenLimit) {
                    g_option_info.max_tree_children = 1;
                }
            },
            [&] {
                if (excluded != nullptr) {
                    excluded->is_excluded = false;
                }
                if (kind == Kind::kEveryTreeIdTaken) {
                    m_fabric.fabric().SetJobTreeIds(job_id.ToString(), {});
                }
                g_option_info = options;
            });

        EXPECT_EQ(CheckRegisteredTreeNodes(m_fabric.fabric(), m_creator), "") << what;
        EXPECT_EQ(m_creator.LastInternalFailure().kind, InternalFailure::kNone) << what;
        if (kind != Kind::kServed) {
            EXPECT_EQ(request.status, 1) << what << " was not refused";
            EXPECT_TRUE(request.info.tree_nodes.empty()) << what;
        } else if (request.status == 0) {
            EXPECT_EQ(CheckTreeInvariants(request.info, m_fabric.fabric(), request.ports,
                                          g_option_info.max_tree_children),
                      "")
                << what;
            // Every tree node is one the creator made for this request.
            std::set<const TreeNode*> made;
            for (const auto& node : m_creator.GetCreatedTreeNodes()) {
                made.insert(node.get());
            }
            for (const TreeNode* node : request.info.tree_nodes) {
                EXPECT_EQ(made.count(node), 1u) << what;
            }
        } else {
            EXPECT_EQ(request.status, 1) << what;
            EXPECT_FALSE(request.info.error_text.empty()) << what;
        }
        return request.status;
    }

    InstalledFabric m_fabric;
    OnDemandTreeCreator m_creator;
    std::mt19937 m_random;
};

void ExpectLongService(const FabricDescription& description, const std::string& name) {
    const size_t count = RequestCount();
    LongService service(description);
    // The refusals' messages are not looked at here; keeping them would grow memory.
    const LogSink previous = log_set_sink([](const LogRecord&) {});
    const ServiceFigures figures = service.Run(count);
    log_set_sink(previous);
    ASSERT_FALSE(::testing::Test::HasFailure());
    EXPECT_EQ(figures.requests, count);
    EXPECT_GT(figures.served, count / 2) << name;
    std::printf(
        "%s: %zu requests, %zu served, %zu refused; resident %zu KiB after warm-up, "
        "%zu KiB at most, %zu KiB at the end\n",
        name.c_str(), figures.requests, figures.served, figures.refused,
        figures.resident_after_warm_up >> 10, figures.resident_most >> 10,
        figures.resident_at_end >> 10);
    if (MemoryIsChecked()) {
        // Flat: what the allocator keeps for reuse, not a request's worth per request.
        constexpr size_t kTolerance = size_t{2} << 20;
        EXPECT_LE(figures.resident_most, figures.resident_after_warm_up + kTolerance) << name;
    }
}

TEST(LongService, AFatTreeServesRequestAfterRequest) {
    aggtree::FatTreeParams params;
    params.levels = 3;
    params.radix = 8;
    params.parallel_links = 2;
    ExpectLongService(aggtree::GenerateFatTree(params), "fat tree");
}

TEST(LongService, ADragonflyPlusFabricServesRequestAfterRequest) {
    aggtree::DragonflyPlusParams params;
    params.groups = 6;
    params.leaves_per_group = 4;
    params.spines_per_group = 4;
    params.hosts_per_leaf = 4;
    params.global_links_per_spine = 2;
    ExpectLongService(aggtree::GenerateDragonflyPlus(params), "Dragonfly+");
}

}  // namespace
