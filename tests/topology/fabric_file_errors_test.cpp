// Malformed fabric files: each is refused with an InputError that names the file, the
// JSON path (or line and column) and what is wrong.
#include <gtest/gtest.h>

#include <ostream>

#include <algorithm>
#include <string>
#include <vector>

#include "topology/fabric_file.h"

namespace aggtree {
namespace {

struct MalformedFile {
    const char* name;
    const char* text;
    const char* message;  // the complete what() text
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const MalformedFile& value, std::ostream* out) {
    *out << value.name;
}

// The base file has leaf-1 (0x1001) and spine-1 (0x1002), one link between them and
// host node001 on leaf-1; each case breaks one thing.
const MalformedFile kMalformedFiles[] =
    {
        {"TrailingComma",
         R"json({
  "aggtree_fabric": 1,
  "switches": [],
}
)json",
         "bad.json: line 4, column 1: malformed JSON: syntax error while parsing object key - "
         "unexpected '}'; expected string literal"},
        {"UnclosedObject",
         R"json({ "aggtree_fabric": 1,
  "switches": [
)json",
         "bad.json: line 3, column 1: malformed JSON: syntax error while parsing value - "
         "unexpected end of input; expected '[', '{', or a literal"},
        {"TopLevelArray", R"json([1, 2])json",
         "bad.json: expected a JSON object at the top level, got an array"},
        {"MissingVersion", R"json({"switches": [], "links": [], "hosts": []})json",
         "bad.json: /aggtree_fabric: required key \"aggtree_fabric\" is missing"},
        {"WrongVersion",
         R"json({"aggtree_fabric": 2, "switches": [], "links": [], "hosts": []})json",
         "bad.json: /aggtree_fabric: unsupported fabric file version 2 (this aggtree reads version "
         "1)"},
        {"MisspelledTopLevelKey",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "swiches": []})json",
         "bad.json: /swiches: unknown key \"swiches\" (did you mean \"switches\"?)"},
        {"UnknownSwitchKey",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "colour": "red"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/colour: unknown key \"colour\""},
        {"MissingSwitches", R"json({"aggtree_fabric": 1, "links": [], "hosts": []})json",
         "bad.json: /switches: required key \"switches\" is missing"},
        {"SwitchesNotAnArray",
         R"json({"aggtree_fabric": 1, "switches": {}, "links": [], "hosts": []})json",
         "bad.json: /switches: expected an array, got an object"},
        {"SwitchWithoutGuid",
         R"json({"aggtree_fabric": 1, "switches": [{"name": "leaf-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/guid: required key \"guid\" is missing"},
        {"SwitchWithoutName",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/name: required key \"name\" is missing"},
        {"GuidAsNumber",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": 4097, "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/guid: expected a GUID string such as \"0x0002c90300a1b2c4\", got "
         "4097"},
        {"GuidWithoutPrefix",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/guid: expected a GUID string such as \"0x0002c90300a1b2c4\", got "
         "\"1001\""},
        {"GuidNotHex",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0xzz", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/guid: expected a GUID string such as \"0x0002c90300a1b2c4\", got "
         "\"0xzz\""},
        {"GuidZero",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x0", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/guid: GUID 0x0 is not a valid GUID"},
        {"DuplicateSwitchGuid",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1002", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/1/guid: duplicate switch GUID 0x1002 (also at /switches/0)"},
        {"DuplicateSwitchName",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1003", "name": "leaf-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/1/name: duplicate switch name \"leaf-1\" (also at /switches/0)"},
        {"EmptyName",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": ""}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/name: a name must not be empty"},
        {"PlaneOutOfRange",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "plane": 256}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/plane: 256 is out of range (expected an integer from 0 to 255)"},
        {"GroupIdOutOfRange",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "dfp_group_id": 70000}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/dfp_group_id: 70000 is out of range (expected an integer from 0 to "
         "65535)"},
        {"NegativeTopologyKind",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "topology_kind": -1}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/topology_kind: -1 is out of range (expected an integer from 0 to "
         "4294967295)"},
        {"ChildrenLimitAsString",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "tree_children_limit": "64"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/tree_children_limit: expected an integer from 0 to 65535, got "
         "\"64\""},
        {"FractionalRank",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "rank": 1.5}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/rank: expected an integer from 0 to 2147483647, got 1.5"},
        {"BooleanAsString",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "valid": "yes"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/valid: expected true or false, got \"yes\""},
        {"UnknownResource",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "resources": {"units": 1, "memory": 2}}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/resources/memory: unknown key \"memory\""},
        {"ResourceTooLarge",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "resources": {"units": 4294967296}}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/resources/units: 4294967296 is out of range (expected an integer "
         "from 0 to 4294967295)"},
        {"UsedTreeIdAboveMax",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1", "used_tree_ids": [3, 128]}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/0/used_tree_ids/1: tree id 128 is above max_tree_id 127"},
        {"LinkToUnknownName",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-9"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /links/0/b: unknown switch \"spine-9\""},
        {"LinkToUnknownGuid",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "0x1001", "b": "0x1003"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /links/0/b: unknown switch \"0x1003\""},
        {"LinkWithoutB",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /links/0/b: required key \"b\" is missing"},
        {"SelfLink",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "0x1001"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /links/0: switch \"leaf-1\" is linked to itself"},
        {"ZeroLinkCount",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1", "count": 0}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /links/0/count: 0 is out of range (expected an integer from 1 to 65535)"},
        {"LockLimitOutOfRange",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1", "lock_limit": 300}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /links/0/lock_limit: 300 is out of range (expected an integer from 0 to 255)"},
        {"HostOnUnknownSwitch",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "switch": "leaf-7"}]})json",
         "bad.json: /hosts/0/switch: unknown switch \"leaf-7\""},
        {"HostWithoutSwitch", R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001"}]})json",
         "bad.json: /hosts/0/switch: required key \"switch\" is missing"},
        {"DuplicateHostName",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}, {"guid": "0x2002", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /hosts/1/name: duplicate host name \"node001\" (also at /hosts/0)"},
        {"DuplicateHostPort",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "a", "switch": "leaf-1", "plane": 1}, {"guid": "0x2001", "name": "b", "switch": "spine-1", "plane": 1}]})json",
         "bad.json: /hosts/1: duplicate host port 0x2001 on plane 1 (also at /hosts/0)"},
        {"UnknownRoot",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "roots": ["leaf-1", "core-1"]})json",
         "bad.json: /roots/1: unknown switch \"core-1\""},
        {"UnrankableSwitch",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}, {"guid": "0x1003", "name": "orphan"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}]})json",
         "bad.json: /switches/2: switch \"orphan\" cannot be ranked: it has no hosts and no link "
         "to a ranked switch of its island; give it a \"rank\" or name the top switches in "
         "\"roots\""},
        {"UnreachableFromRoots",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}, {"guid": "0x1003", "name": "orphan"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "roots": ["spine-1"]})json",
         "bad.json: /switches/2: switch \"orphan\" cannot be ranked: no path leads to it from the "
         "roots of its island"},
        {"DuplicateKey",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1", "name": "a", "name": "b"}], "links": [], "hosts": []})json",
         "bad.json: /switches/0/name: key \"name\" appears twice in one object"},
        {"JobListedTwice",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "job_tree_ids": [{"job": "default_7", "tree_ids": [1]}, {"job": "default_7", "tree_ids": [2]}]})json",
         "bad.json: /job_tree_ids/1/job: job \"default_7\" is listed twice (also at "
         "/job_tree_ids/0)"},
        {"TreeIdOutOfRange",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "sat_tree_ids": [1, 65536]})json",
         "bad.json: /sat_tree_ids/1: 65536 is out of range (expected an integer from 0 to 65535)"},
        {"UnknownOption",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "options": {"max_tree_children": 8, "max_children": 3}})json",
         "bad.json: /options/max_children: unknown key \"max_children\""},
        {"ChildlessIslandsOutOfRange",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "options": {"max_childless_islands": 256}})json",
         "bad.json: /options/max_childless_islands: 256 is out of range (expected an integer from "
         "0 to 255)"},
        {"MaxTreeIdNegative",
         R"json({"aggtree_fabric": 1, "switches": [{"guid": "0x1001", "name": "leaf-1"}, {"guid": "0x1002", "name": "spine-1"}], "links": [{"a": "leaf-1", "b": "spine-1"}], "hosts": [{"guid": "0x2001", "name": "node001", "switch": "leaf-1"}], "max_tree_id": -1})json",
         "bad.json: /max_tree_id: -1 is out of range (expected an integer from 0 to 65535)"},
};

class MalformedFabricFile : public ::testing::TestWithParam<MalformedFile> {};

TEST_P(MalformedFabricFile, IsRefusedWithItsMessage) {
    const MalformedFile& c = GetParam();
    std::vector<std::string> warnings;
    try {
        ParseFabricJson(c.text, "bad.json", &warnings);
        FAIL() << "accepted: " << c.text;
    } catch (const InputError& error) {
        EXPECT_EQ(std::string(error.what()), c.message);
        EXPECT_EQ(error.file(), "bad.json");
    }
}

INSTANTIATE_TEST_SUITE_P(FabricFileErrors, MalformedFabricFile,
                         ::testing::ValuesIn(kMalformedFiles),
                         [](const ::testing::TestParamInfo<MalformedFile>& info) {
                             return std::string(info.param.name);
                         });

TEST(FabricFileErrors, ThereAreManyDistinctCases) {
    std::vector<std::string> messages;
    for (const MalformedFile& c : kMalformedFiles) {
        messages.emplace_back(c.message);
    }
    std::sort(messages.begin(), messages.end());
    EXPECT_EQ(std::unique(messages.begin(), messages.end()), messages.end());
    EXPECT_GE(messages.size(), 25u);
}

TEST(FabricFileErrors, ErrorPlaceAndProblemAreSeparate) {
    try {
        ParseFabricJson(R"({"aggtree_fabric": 1, "switches": [{"guid": "0x1", "name": "a",
                            "plane": 300}], "links": [], "hosts": []})",
                        "f.json");
        FAIL() << "accepted";
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), "f.json");
        EXPECT_EQ(error.where(), "/switches/0/plane");
        EXPECT_EQ(error.problem(), "300 is out of range (expected an integer from 0 to 255)");
    }
}

TEST(FabricFileErrors, MalformedJsonNamesLineAndColumn) {
    try {
        ParseFabricJson("{\n  \"aggtree_fabric\": 1,\n  \"switches\": [ nope ]\n}", "f.json");
        FAIL() << "accepted";
    } catch (const InputError& error) {
        // The column of the first character that cannot continue the text ("no...").
        EXPECT_EQ(error.where(), "line 3, column 18");
        EXPECT_EQ(error.problem().rfind("malformed JSON: ", 0), 0u) << error.problem();
    }
}

}  // namespace
}  // namespace aggtree
