// Import of ibnetdiscover dumps and simulator net files: every accepted variant, names,
// GUIDs, cables counted once, hosts, group maps, roots, and the refused inputs.
#include "topology/ibnetdiscover.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ostream>

#include <filesystem>
#include <string>

#include "description_compare.h"
#include "fabric_model/fabric.h"
#include "topology/fabric_file.h"
#include "topology/input_error.h"

namespace aggtree {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

std::ptrdiff_t SwitchIndex(const FabricDescription& d, const std::string& name) {
    for (size_t i = 0; i < d.switches.size(); ++i) {
        if (d.switches[i].name == name) {
            return static_cast<std::ptrdiff_t>(i);
        }
    }
    ADD_FAILURE() << "no switch " << name;
    return -1;
}

const SwitchDescription& Sw(const FabricDescription& d, const std::string& name) {
    std::ptrdiff_t i = SwitchIndex(d, name);
    static SwitchDescription none;
    return i < 0 ? none : d.switches[static_cast<size_t>(i)];
}

// Count of the links between two switches, 0 when they are not linked.
int LinkCount(const FabricDescription& d, const std::string& a, const std::string& b) {
    int count = 0;
    for (const LinkDescription& link : d.links) {
        const std::string& x = d.switches[link.a].name;
        const std::string& y = d.switches[link.b].name;
        if ((x == a && y == b) || (x == b && y == a)) {
            count += link.count;
        }
    }
    return count;
}

// "name@switch" for every host, in order.
std::vector<std::string> HostsOn(const FabricDescription& d) {
    std::vector<std::string> out;
    for (const HostDescription& host : d.hosts) {
        out.push_back(host.name + "@" + d.switches[host.switch_index].name);
    }
    return out;
}

std::string ErrorOf(std::string_view text, std::string_view groups = {},
                    std::string_view roots = {}) {
    try {
        ParseIbnetdiscover(text, "dump.txt", groups, "groups.txt", roots, "roots.txt");
    } catch (const InputError& error) {
        return error.what();
    }
    return "accepted";
}

// A dump with every variant the import accepts: header comments, grouping lines, GUID
// lines of every kind, [ext N], unknown width and speed, -f fields, a router, a
// two-port Ca, a Ca known only from a switch's port line, a cable listed on one side
// only, parallel cables, Cas sharing a description and nodes without descriptions.
const char* kDump = R"(#
# Topology file: generated on Tue Mar  4 10:12:33 2025
#
# Initiated from node 0002c90300000101 port 0002c90300000101

Chassis 1 (Director)
# Spine Nodes
vendid=0x2c9
devid=0xd2f0
sysimgguid=0x2c90300000010
switchguid=0x2c90300000011(2c90300000011)
Switch	40 "S-0002c90300000011"		# "spine-a" enhanced port 0 lid 1 lmc 0
[1]	"S-0002C90300000021"[33]		# "leaf-a" lid 3 4xHDR
[2][ext 2]	"S-0002c90300000021"[34]		# "leaf-a" lid 3 4x???
[3]	"S-0002c90300000022"[33][ext 7]		# "leaf-b" lid 4 ?? s=4 w=4 v=5
[4]	"R-0002c90300000091"[1]		# "router-1" lid 9 4xHDR
[5]	"S-0002c90300000011"[6]		# "spine-a" lid 1 4xHDR
[6]	"S-0002c90300000011"[5]		# "spine-a" lid 1 4xHDR

# Line Nodes
vendid=0x2c9
devid=0xd2f0
switchguid=0x2c90300000021(2c90300000021)
Switch	40 "S-0002c90300000021"		# "leaf-a" base port 0 lid 3 lmc 0
[1]	"H-0002c90300000100"[1](2c90300000101) 		# "node001 HCA-1" lid 5 4xHDR
[2]	"H-0002c90300000100"[2](2c90300000102) 		# "node001 HCA-1" lid 6 4xHDR
[3]	"H-0002c90300000300"[1](2c90300000301) 		# "gpu-7 HCA-1" lid 8 4xHDR
[33]	"S-0002c90300000011"[1]		# "spine-a" lid 1 4xHDR
[34]	"S-0002c90300000011"[2]		# "spine-a" lid 1 4xHDR

Non-Chassis Nodes

vendid=0x2c9
devid=0xd2f0
switchguid=0x2c90300000022(2c90300000022)
Switch	36 "S-0002c90300000022"		# "" enhanced port 0 lid 4 lmc 0
[1]	"H-0002c90300000200"[1](2c90300000201) 		# "MT4123 ConnectX6" lid 7 4xHDR
[2]	"H-0002c90300000400"[1](2c90300000401) 		# "MT4123 ConnectX6" lid 9 4xHDR

vendid=0x2c9
devid=0x101b
sysimgguid=0x2c90300000100
caguid=0x2c90300000100
Ca	2 "H-0002c90300000100"		# "node001 HCA-1"
[1](2c90300000101) 	"S-0002c90300000021"[1]		# lid 5 lmc 0 "leaf-a" lid 3 4xHDR
[2](2c90300000102) 	"S-0002c90300000021"[2]		# lid 6 lmc 0 "leaf-a" lid 3 4xHDR

caguid=0x2c90300000200
Ca	1 "H-0002c90300000200"		# "MT4123 ConnectX6"
[1](2c90300000201) 	"S-0002c90300000022"[1]		# lid 7 lmc 0 "" lid 4 4xHDR

Ca	1 "H-0002c90300000400"		# "MT4123 ConnectX6"
[1](2c90300000401) 	"S-0002c90300000022"[2]		# lid 9 lmc 0 "" lid 4 4xHDR

rtguid=0x2c90300000091
Rt	1 "R-0002c90300000091"		# "router-1"
[1](2c90300000091) 	"S-0002c90300000011"[4]		# lid 9 lmc 0 "spine-a" lid 1 4xHDR
)";

TEST(Ibnetdiscover, ReadsEveryVariantOfADump) {
    std::vector<std::string> warnings;
    const FabricDescription d = ParseIbnetdiscover(kDump, "dump.txt", {}, {}, {}, {}, &warnings);
    ASSERT_EQ(d.switches.size(), 3u);
    EXPECT_EQ(d.switches[0].name, "spine-a");
    EXPECT_EQ(d.switches[0].guid, 0x0002c90300000011u);
    EXPECT_EQ(d.switches[1].name, "leaf-a");
    EXPECT_EQ(d.switches[1].guid, 0x0002c90300000021u);
    // No description: named by its GUID.
    EXPECT_EQ(d.switches[2].name, "0x2c90300000022");
    EXPECT_EQ(d.switches[2].guid, 0x0002c90300000022u);
    for (const SwitchDescription& sw : d.switches) {
        EXPECT_EQ(sw.topology_kind, 1u) << sw.name;
        EXPECT_FALSE(sw.defer_root) << sw.name;
    }
    // Two cables leaf-a/spine-a, each listed on both switches: counted once each.
    EXPECT_EQ(LinkCount(d, "spine-a", "leaf-a"), 2);
    // Listed on spine-a only.
    EXPECT_EQ(LinkCount(d, "spine-a", "0x2c90300000022"), 1);
    EXPECT_EQ(d.links.size(), 2u);

    EXPECT_THAT(HostsOn(d), ElementsAre("node001@leaf-a", "node001-p2@leaf-a",
                                        "0x2c90300000201@0x2c90300000022",
                                        "0x2c90300000401@0x2c90300000022", "gpu-7@leaf-a"));
    EXPECT_EQ(d.hosts[0].guid, 0x0002c90300000101u);
    EXPECT_EQ(d.hosts[1].guid, 0x0002c90300000102u);
    EXPECT_EQ(d.hosts[4].guid, 0x0002c90300000301u);

    EXPECT_EQ(d.switches[0].rank, 1);
    EXPECT_EQ(d.switches[1].rank, 0);
    EXPECT_EQ(d.switches[2].rank, 0);
    EXPECT_THAT(warnings,
                UnorderedElementsAre(
                    "line 56: router \"router-1\" and its cables are ignored",
                    "switch \"spine-a\" has port 5 cabled to its own port 6; ignored",
                    "2 host ports would be named \"MT4123\"; they are named by their port GUIDs"));
}

TEST(Ibnetdiscover, ImportedFabricBuildsWithLinksUpward) {
    const FabricDescription d = ParseIbnetdiscover(kDump, "dump.txt");
    Fabric fabric(d);
    const AggNodeFabricInfo* leaf = fabric.FindSwitch("leaf-a");
    const AggNodeFabricInfo* spine = fabric.FindSwitch("spine-a");
    ASSERT_TRUE(leaf && spine);
    const AggPathsMap& up = leaf->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP);
    ASSERT_EQ(up.count(spine), 1u);
    EXPECT_EQ(up.at(spine).size(), 2u);  // each parallel cable its own path
    EXPECT_EQ(fabric.GetSwitchThatIsConnectedToHost(HcaPortKey{0x0002c90300000102, 0}), leaf);
    EXPECT_NE(fabric.FindHost("node001-p2"), nullptr);
}

TEST(Ibnetdiscover, ImportRoundTripsThroughAFabricFile) {
    const FabricDescription d = ParseIbnetdiscover(kDump, "dump.txt");
    const FabricDescription again = ParseFabricJson(WriteFabricJson(d), "converted.json");
    EXPECT_EQ(DescriptionDifferences(d, again), "");
}

uint64_t Fnv1a(std::string_view text) {
    uint64_t hash = 14695981039346656037ULL;
    for (unsigned char c : text) {
        hash = (hash ^ c) * 1099511628211ULL;
    }
    return hash;
}

const char* kNetFile = R"(
Switch 8 "Switch1"
[1] "Hca1"[1]
[2] "Hca2"[1]
[3] "Switch2"[3]
[4] "Switch2"[4] w=4

Switch 8 "Switch2"
[3] "Switch1"[3]
[4] "Switch1"[4]
[5] "Hca3"[1]

Hca 2 "Hca1"
[1] "Switch1"[1]

Ca 1 "Hca2"
[1] "Switch1"[2]

Ca 2 "Hca3"
[1] "Switch2"[5]
)";

TEST(Ibnetdiscover, ReadsASimulatorNetFile) {
    EXPECT_TRUE(LooksLikeIbnetdiscover(kNetFile));
    std::vector<std::string> warnings;
    const FabricDescription d = ParseIbnetdiscover(kNetFile, "net.txt", {}, {}, {}, {}, &warnings);
    ASSERT_EQ(d.switches.size(), 2u);
    EXPECT_EQ(d.switches[0].name, "Switch1");
    EXPECT_EQ(d.switches[1].name, "Switch2");
    // GUIDs of net files: the FNV-1a hash of the quoted identifier.
    EXPECT_EQ(d.switches[0].guid, Fnv1a("Switch1"));
    EXPECT_EQ(d.switches[1].guid, Fnv1a("Switch2"));
    EXPECT_EQ(LinkCount(d, "Switch1", "Switch2"), 2);
    EXPECT_THAT(HostsOn(d), ElementsAre("Hca1@Switch1", "Hca2@Switch1", "Hca3@Switch2"));
    EXPECT_EQ(d.hosts[0].guid, Fnv1a("Hca1/1"));
    EXPECT_EQ(d.hosts[2].guid, Fnv1a("Hca3/1"));
    // Both switches have hosts and are linked: rank 0 each, with a warning.
    EXPECT_EQ(d.switches[0].rank, 0);
    EXPECT_EQ(warnings.size(), 1u);
}

TEST(Ibnetdiscover, NetFileGuidsStayWhenTheFileGrows) {
    // One more switch in front, cabled to Switch1 (listed on its side only).
    const std::string grown_text =
        std::string("Switch 4 \"Switch0\"\n[1] \"Switch1\"[8]\n") + kNetFile;
    const FabricDescription small = ParseIbnetdiscover(kNetFile, "net.txt");
    const FabricDescription grown = ParseIbnetdiscover(grown_text, "net.txt");
    ASSERT_EQ(grown.switches.size(), 3u);
    EXPECT_EQ(grown.switches[1].name, "Switch1");
    EXPECT_EQ(grown.switches[1].guid, small.switches[0].guid);
    EXPECT_EQ(grown.hosts[0].guid, small.hosts[0].guid);
    EXPECT_EQ(grown.switches[0].rank, 1);
}

TEST(Ibnetdiscover, NetFileWithRootsRanksFromTheTop) {
    const FabricDescription d = ParseIbnetdiscover(kNetFile, "net.txt", {}, {}, "Switch2\n", {});
    EXPECT_EQ(d.switches[1].rank, 1);
    EXPECT_EQ(d.switches[0].rank, 0);
    EXPECT_THAT(d.roots, ElementsAre(1u));
}

// Two groups: g1 = spine-1, leaf-1, leaf-2; g2 = spine-2, leaf-3.  spine-1 and spine-2
// are linked (the global link).
const char* kTwoGroups = R"(
Switch 8 "spine-1"
[1] "leaf-1"[5]
[2] "leaf-2"[5]
[8] "spine-2"[8]
Switch 8 "spine-2"
[1] "leaf-3"[5]
[8] "spine-1"[8]
Switch 8 "leaf-1"
[1] "h1"[1]
[5] "spine-1"[1]
Switch 8 "leaf-2"
[1] "h2"[1]
[5] "spine-1"[2]
Switch 8 "leaf-3"
[1] "h3"[1]
[5] "spine-2"[1]
Ca 1 "h1"
[1] "leaf-1"[1]
Ca 1 "h2"
[1] "leaf-2"[1]
Ca 1 "h3"
[1] "leaf-3"[1]
)";

TEST(Ibnetdiscover, GroupMapMarksDragonflyPlusGroups) {
    const std::string groups =
        "# group map\n"
        "spine-1 1\n"
        "\"leaf-1\"\t1   # quoted name, tab\n"
        "leaf-2 1\n"
        "\n"
        "spine-2 2\n" +
        GuidToString(Fnv1a("leaf-3")) + " 2\n";
    const FabricDescription d = ParseIbnetdiscover(kTwoGroups, "net.txt", groups, "groups.txt");
    for (const char* name : {"spine-1", "leaf-1", "leaf-2"}) {
        EXPECT_EQ(Sw(d, name).topology_kind, 3u) << name;
        EXPECT_EQ(Sw(d, name).dfp_group_id, 1) << name;
    }
    for (const char* name : {"spine-2", "leaf-3"}) {
        EXPECT_EQ(Sw(d, name).topology_kind, 3u) << name;
        EXPECT_EQ(Sw(d, name).dfp_group_id, 2) << name;
    }
    // Ranks per island: the global link does not lift spine-2 above spine-1.
    EXPECT_EQ(Sw(d, "spine-1").rank, 1);
    EXPECT_EQ(Sw(d, "spine-2").rank, 1);
    EXPECT_EQ(Sw(d, "leaf-3").rank, 0);
    // Leaves defer to the spines that carry the global links.
    EXPECT_TRUE(Sw(d, "leaf-1").defer_root);
    EXPECT_TRUE(Sw(d, "leaf-3").defer_root);
    EXPECT_FALSE(Sw(d, "spine-1").defer_root);
    EXPECT_FALSE(Sw(d, "spine-2").defer_root);

    Fabric fabric(d);
    EXPECT_EQ(fabric.FindSwitch("spine-1")->sibling_links.size(), 1u);
    EXPECT_EQ(fabric.FindSwitch("leaf-1")->GetAggPathsByDirection(AGG_PATH_DIRECTION_UP).size(),
              1u);
}

TEST(Ibnetdiscover, SwitchesOutsideTheGroupMapStayTreeSwitches) {
    const FabricDescription d =
        ParseIbnetdiscover(kTwoGroups, "net.txt", "spine-2 4\nleaf-3 4\n", "groups.txt");
    EXPECT_EQ(Sw(d, "spine-1").topology_kind, 1u);
    // Next to groups, plain tree switches are marked alike: the leaves defer to spine-1,
    // which carries the link to group 4.
    EXPECT_TRUE(Sw(d, "leaf-1").defer_root);
    EXPECT_FALSE(Sw(d, "spine-1").defer_root);
    EXPECT_TRUE(Sw(d, "leaf-3").defer_root);
    EXPECT_FALSE(Sw(d, "spine-2").defer_root);
    EXPECT_EQ(Sw(d, "spine-2").dfp_group_id, 4);
}

std::string SourceDir() {
    if (const char* source = std::getenv("AGGTREE_SOURCE_DIR")) {
        return source;
    }
    return std::filesystem::path(__FILE__).parent_path().parent_path().parent_path().string();
}

TEST(Ibnetdiscover, ExampleDumpImportsCleanly) {
    FabricLoadOptions options;
    options.groups_file = SourceDir() + "/examples/two-level.groups";
    std::vector<std::string> warnings;
    const FabricDescription d =
        LoadFabric(SourceDir() + "/examples/two-level.ibnetdiscover", {}, &warnings);
    EXPECT_THAT(warnings, IsEmpty());
    ASSERT_EQ(d.switches.size(), 6u);
    EXPECT_EQ(d.hosts.size(), 8u);
    EXPECT_EQ(LinkCount(d, "leaf-1", "spine-1"), 2);
    EXPECT_EQ(LinkCount(d, "leaf-2", "spine-2"), 2);
    EXPECT_EQ(LinkCount(d, "leaf-3", "spine-1"), 1);
    EXPECT_EQ(d.links.size(), 8u);
    EXPECT_EQ(Sw(d, "spine-1").rank, 1);
    EXPECT_EQ(Sw(d, "leaf-4").rank, 0);
    EXPECT_EQ(d.hosts[7].name, "node008");
    Fabric fabric(d);

    const FabricDescription grouped =
        LoadFabric(SourceDir() + "/examples/two-level.ibnetdiscover", options, &warnings);
    EXPECT_THAT(warnings, IsEmpty());
    EXPECT_EQ(Sw(grouped, "leaf-2").dfp_group_id, 1);
    EXPECT_EQ(Sw(grouped, "leaf-4").dfp_group_id, 2);
    EXPECT_EQ(Sw(grouped, "spine-2").topology_kind, 3u);
    // Every switch of the demonstration carries a link to the other group.
    for (const SwitchDescription& sw : grouped.switches) {
        EXPECT_FALSE(sw.defer_root) << sw.name;
    }
    Fabric grouped_fabric(grouped);
    // leaf-1 to spine-2 joins two groups: siblings.
    EXPECT_EQ(grouped_fabric.FindSwitch("leaf-1")->sibling_links.size(), 1u);
}

TEST(Ibnetdiscover, RecognisesDumpsByContent) {
    EXPECT_TRUE(LooksLikeIbnetdiscover(kDump));
    EXPECT_TRUE(LooksLikeIbnetdiscover("\n\nvendid=0x2c9\n"));
    EXPECT_TRUE(LooksLikeIbnetdiscover("Switch\t8 \"S-0000000000000001\"\n"));
    EXPECT_FALSE(LooksLikeIbnetdiscover("  {\"aggtree_fabric\": 1}"));
    EXPECT_FALSE(LooksLikeIbnetdiscover("[]"));
    EXPECT_FALSE(LooksLikeIbnetdiscover(""));
    EXPECT_FALSE(LooksLikeIbnetdiscover("Switches are great\n"));
}

struct BadDump {
    const char* name;
    const char* text;
    const char* message;
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const BadDump& value, std::ostream* out) {
    *out << value.name;
}

const BadDump kBadDumps[] = {
    {"UnrecognisedLine", "Switch 8 \"a\"\nhello world\n",
     "dump.txt: line 2: unrecognised line \"hello world\" (expected a Switch, Ca or Rt record, a "
     "GUID line or a port line)"},
    {"PortLineBeforeRecord", "# x\n[1] \"a\"[1]\n",
     "dump.txt: line 2: a port line before any Switch or Ca record"},
    {"RecordWithoutPortCount", "Switch \"a\"\n",
     "dump.txt: line 1: expected the number of ports after \"Switch\""},
    {"RecordWithoutIdentifier", "Switch 8 a\n",
     "dump.txt: line 1: expected the node's quoted identifier after its number of ports"},
    {"RecordWithZeroPorts", "Switch 0 \"a\"\n",
     "dump.txt: line 1: a node has from 1 to 255 ports, not 0"},
    {"PortBeyondTheSwitch", "Switch 8 \"a\"\n[9] \"b\"[1]\nSwitch 8 \"b\"\n",
     "dump.txt: line 2: port 9 does not exist on \"a\", which has ports 1 to 8"},
    {"PortListedTwice", "Switch 8 \"a\"\n[1] \"b\"[1]\n[1] \"b\"[2]\nSwitch 8 \"b\"\n",
     "dump.txt: line 3: port 1 of \"a\" is listed twice (also at line 2)"},
    {"RemoteWithoutRecord", "Switch 8 \"a\"\n[1] \"S-00000000000000ff\"[1]\n",
     "dump.txt: line 2: port 1 leads to \"S-00000000000000ff\", which has no record in the file"},
    {"CableEndsDisagree",
     "Switch 8 \"a\"\n[1] \"b\"[1]\nSwitch 8 \"b\"\n[1] \"c\"[2]\nSwitch 8 \"c\"\n[2] \"b\"[1]\n",
     "dump.txt: line 2: port 1 of \"a\" leads to port 1 of \"b\", but line 4 says that port leads "
     "to port 2 of \"c\""},
    {"FarEndClaimedTwice", "Switch 8 \"a\"\n[1] \"c\"[1]\n[2] \"c\"[1]\nSwitch 8 \"c\"\n",
     "dump.txt: line 3: port 1 of \"c\" is also named at line 2"},
    {"SecondRecordForANode", "Switch 8 \"a\"\nSwitch 4 \"a\"\n",
     "dump.txt: line 2: a second record for \"a\" (the first is at line 1)"},
    {"GuidLineDisagreesWithIdentifier",
     "switchguid=0x12(12)\nSwitch\t8 \"S-0000000000000013\"\t\t# \"x\"\n",
     "dump.txt: line 2: the identifier \"S-0000000000000013\" does not match the GUID 0x12 of "
     "line 1"},
    {"GuidLineOfAnotherKind", "caguid=0x12\nSwitch 8 \"S-0000000000000012\"\n",
     "dump.txt: line 2: a Switch record follows the caguid line 1"},
    {"MalformedGuidLine", "switchguid=0xnothex\nSwitch 8 \"a\"\n",
     "dump.txt: line 1: switchguid must be a GUID such as 0x0002c90300a1b2c4, got \"0xnothex\""},
    {"SwitchWithCaIdentifier", "Switch 8 \"H-0000000000000012\"\n",
     "dump.txt: line 1: a Switch record cannot carry the identifier \"H-0000000000000012\" "
     "(expected the prefix S-)"},
    {"PortLineWithoutRemotePort", "Switch 8 \"a\"\n[1] \"b\"\n",
     "dump.txt: line 2: expected a port line such as [3]\t\"S-0002c90300a1b2c4\"[17] or "
     "[1](2c90300a1b2c5)\t\"S-0002c90300a1b2c4\"[3]"},
    {"JunkAfterRemotePort", "Switch 8 \"a\"\n[1] \"b\"[1] junk\nSwitch 8 \"b\"\n",
     "dump.txt: line 2: unexpected \"junk\" after the remote port"},
    {"BadPortGuid", "Ca 1 \"H-0000000000000100\"\n[1](xyz) \"a\"[1]\nSwitch 8 \"a\"\n",
     "dump.txt: line 2: malformed port GUID in parentheses (expected hexadecimal digits)"},
    {"CaPortWithoutGuid", "Switch 8 \"a\"\nCa 1 \"H-0000000000000100\"\n[1] \"a\"[1]\n",
     "dump.txt: line 3: the port GUID of Ca \"H-0000000000000100\" port 1 is missing (expected "
     "it in parentheses after the port number)"},
    {"NoSwitches", "Ca 1 \"h\"\n",
     "dump.txt: no Switch record found (is this an ibnetdiscover dump?)"},
    {"GuidLineAtTheEnd", "Switch 8 \"a\"\n\nswitchguid=0x5\n",
     "dump.txt: line 3: a GUID line without a record after it"},
    {"SwitchThatCannotBeRanked", "Switch 8 \"a\"\n[1] \"h\"[1]\nSwitch 8 \"alone\"\nCa 1 \"h\"\n",
     "dump.txt: line 3: switch \"alone\" cannot be ranked: it has no hosts and no link to a "
     "ranked switch of its island; give it a \"rank\" or name the top switches in \"roots\""},
};

class BadIbnetdiscover : public ::testing::TestWithParam<BadDump> {};

TEST_P(BadIbnetdiscover, IsRefusedNamingTheLine) {
    EXPECT_EQ(ErrorOf(GetParam().text), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(Ibnetdiscover, BadIbnetdiscover, ::testing::ValuesIn(kBadDumps),
                         [](const ::testing::TestParamInfo<BadDump>& info) {
                             return std::string(info.param.name);
                         });

TEST(Ibnetdiscover, BadGroupMapsAreRefusedNamingTheirLine) {
    EXPECT_EQ(ErrorOf(kTwoGroups, "spine-1 1\nspine-9 2\n"),
              "groups.txt: line 2: unknown switch \"spine-9\" (not in dump.txt)");
    EXPECT_EQ(ErrorOf(kTwoGroups, "spine-1\n"),
              "groups.txt: line 1: expected \"<switch name or GUID> <group id>\", got \"spine-1\"");
    EXPECT_EQ(ErrorOf(kTwoGroups, "spine-1 one\n"),
              "groups.txt: line 1: the group id must be an integer from 0 to 65534, got \"one\"");
    EXPECT_EQ(ErrorOf(kTwoGroups, "spine-1 65535\n"),
              "groups.txt: line 1: the group id must be an integer from 0 to 65534, got "
              "\"65535\"");
    EXPECT_EQ(ErrorOf(kTwoGroups, "spine-1 1\n# again\nspine-1 2\n"),
              "groups.txt: line 3: switch \"spine-1\" is already given a group at line 1");
}

TEST(Ibnetdiscover, BadRootsAreRefusedNamingTheirLine) {
    EXPECT_EQ(ErrorOf(kTwoGroups, {}, "# top\n\nspine-1\nspine-3\n"),
              "roots.txt: line 4: unknown switch \"spine-3\"");
}

TEST(Ibnetdiscover, ErrorsCarryFileAndLineApart) {
    try {
        ParseIbnetdiscover("Switch 8 \"a\"\n[1] \"b\"[1] junk\n", "dump.txt");
        FAIL() << "accepted";
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), "dump.txt");
        EXPECT_EQ(error.where(), "line 2");
        EXPECT_EQ(error.problem(), "unexpected \"junk\" after the remote port");
    }
}

}  // namespace
}  // namespace aggtree
