// The limits on loaded fabrics: each is refused just above it with a message naming it
// and the offending switch, kept just at it, and the largest fabrics the limits are
// meant for pass.
#include <gtest/gtest.h>

#include "topology/fabric_file.h"
#include "topology/generators.h"
#include "topology/input_error.h"
#include "topology/input_limits.h"

namespace aggtree {
namespace {

// `count` switches "s0".., rank 0 unless said otherwise; no links or hosts.
FabricDescription Switches(size_t count) {
    FabricDescription description;
    description.switches.resize(count);
    for (size_t i = 0; i < count; ++i) {
        description.switches[i].guid = 0x1000 + i;
        description.switches[i].name = "s" + std::to_string(i);
        description.switches[i].rank = 0;
    }
    return description;
}

// The problem CheckFabricLimits reports, or "" when it accepts.
std::string Refusal(const FabricDescription& description) {
    try {
        CheckFabricLimits(description, "f.json");
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), "f.json");
        return error.problem();
    }
    return "";
}

TEST(InputLimits, SwitchCount) {
    EXPECT_EQ(Refusal(Switches(kMaxSwitches)), "");
    EXPECT_EQ(Refusal(Switches(kMaxSwitches + 1)),
              "the fabric has 262145 switches; aggtree accepts at most 262144");
}

TEST(InputLimits, HostPortCount) {
    FabricDescription description = Switches(kMaxHostPorts / kMaxPortsPerSwitch);
    description.hosts.resize(kMaxHostPorts);
    for (size_t h = 0; h < description.hosts.size(); ++h) {
        description.hosts[h].switch_index = h % description.switches.size();
    }
    EXPECT_EQ(Refusal(description), "");
    description.hosts.emplace_back();
    EXPECT_EQ(Refusal(description),
              "the fabric has 1048577 host ports; aggtree accepts at most 1048576");
}

TEST(InputLimits, CableCountCountsParallelCables) {
    // 64 links of 65535 cables and one of 64: 4194304 cables, the limit; one more cable
    // passes it.
    FabricDescription description = Switches(2 * 65);
    for (size_t l = 0; l < 64; ++l) {
        description.links.push_back(LinkDescription{2 * l, 2 * l + 1, 65535});
    }
    description.links.push_back(LinkDescription{128, 129, 64});
    EXPECT_EQ(Refusal(description).find("cables between switches"), std::string::npos);
    description.links.back().count = 65;
    EXPECT_EQ(Refusal(description),
              "the fabric has 4194305 cables between switches; aggtree accepts at most 4194304");
}

TEST(InputLimits, PortsOfOneSwitchCountCablesAndHostPorts) {
    FabricDescription description = Switches(3);
    description.links.push_back(LinkDescription{0, 1, 4000});
    description.hosts.resize(96);
    EXPECT_EQ(Refusal(description), "");
    description.links.push_back(LinkDescription{0, 2, 1});
    EXPECT_EQ(Refusal(description),
              "switch \"s0\" has 4097 ports (cables to other switches and host ports); aggtree "
              "accepts at most 4096 per switch");
}

TEST(InputLimits, LevelsAreDistinctRanks) {
    FabricDescription description = Switches(65);
    for (size_t i = 0; i < 64; ++i) {
        description.switches[i].rank = static_cast<int>(10 * i);  // gaps do not count
    }
    description.switches[64].rank = 0;
    EXPECT_EQ(Refusal(description), "");
    description.switches[64].rank = 5;
    EXPECT_EQ(Refusal(description),
              "the switches stand on 65 levels (distinct ranks) and switch \"s63\" (rank 630) on "
              "level 65; aggtree accepts at most 64 levels (is a chain of links written by "
              "mistake?)");
}

TEST(InputLimits, DragonflyPlusGroups) {
    FabricDescription description = Switches(kMaxIslands + 2);
    for (size_t i = 0; i < description.switches.size(); ++i) {
        description.switches[i].topology_kind = 3;
        description.switches[i].dfp_group_id = static_cast<uint16_t>(i % kMaxIslands);
    }
    description.switches.back().topology_kind = 1;  // no group
    EXPECT_EQ(Refusal(description), "");
    description.switches.back().topology_kind = 2;
    description.switches.back().dfp_group_id = 9999;
    EXPECT_EQ(Refusal(description),
              "switch \"s2049\" opens Dragonfly+ group 9999, one more than the 2048 groups "
              "aggtree accepts");
}

TEST(InputLimits, NamesOfSwitchesAndHosts) {
    FabricDescription description = Switches(1);
    description.switches[0].name = std::string(kMaxNameBytes, 'a');
    description.hosts.push_back(HostDescription{0x2001, std::string(kMaxNameBytes, 'b'), 0, 0});
    EXPECT_EQ(Refusal(description), "");
    description.hosts[0].name += "b";
    EXPECT_EQ(Refusal(description), "the name of host \"" + std::string(40, 'b') +
                                        "...\" is 1025 bytes long; aggtree accepts names of at "
                                        "most 1024 bytes");
}

// A 65,536-host 3-level fat tree, a 524,288-host one of radix-128 switches, and a
// Dragonfly+ fabric of 64 groups of 64 switches.
TEST(InputLimits, TheLargestRealFabricsPass) {
    FatTreeParams fat_tree;
    fat_tree.levels = 3;
    fat_tree.radix = 64;
    EXPECT_EQ(Refusal(GenerateFatTree(fat_tree)), "");
    fat_tree.radix = 128;
    fat_tree.hosts_per_leaf = 64;
    EXPECT_EQ(Refusal(GenerateFatTree(fat_tree)), "");
    DragonflyPlusParams dragonfly;
    dragonfly.groups = 64;
    dragonfly.leaves_per_group = 32;
    dragonfly.spines_per_group = 32;
    dragonfly.hosts_per_leaf = 32;
    dragonfly.global_links_per_spine = 16;
    EXPECT_EQ(Refusal(GenerateDragonflyPlus(dragonfly)), "");
}

TEST(InputLimits, AFileIsCheckedAfterRanksAreInferredNamingItsPlace) {
    std::string text = R"({"aggtree_fabric": 1, "switches": [)";
    for (int i = 0; i < 70; ++i) {
        text += std::string(i == 0 ? "" : ", ") + R"({"guid": "0x)" + std::to_string(1000 + i) +
                R"(", "name": "s)" + std::to_string(i) + R"("})";
    }
    text += R"(], "links": [)";
    for (int i = 1; i < 70; ++i) {
        text += std::string(i == 1 ? "" : ", ") + R"({"a": "s)" + std::to_string(i - 1) +
                R"(", "b": "s)" + std::to_string(i) + R"("})";
    }
    text += R"(], "hosts": [{"guid": "0x1", "switch": "s0"}]})";
    try {
        ParseFabricJson(text, "chain.json");
        ADD_FAILURE() << "a chain of 70 levels was accepted";
    } catch (const InputError& error) {
        EXPECT_EQ(error.where(), "/switches/64");
        EXPECT_NE(error.problem().find("aggtree accepts at most 64 levels"), std::string::npos)
            << error.problem();
    }
}

}  // namespace
}  // namespace aggtree
