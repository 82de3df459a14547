// Reading job files: hosts and ports into one port set, the resource request, the job
// id, and a precise message for every kind of bad job file.
#include "topology/job_file.h"

#include <gtest/gtest.h>

#include <ostream>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <limits>
#include <string>
#include <vector>

#include "support/fabric_sketch.h"

namespace {

using aggtree::InputError;
using aggtree::JobDescription;
using aggtree::LoadJobFile;
using aggtree::ParseJobJson;

class JobFileTest : public ::testing::Test {
protected:
    JobFileTest() {
        FabricSketch sketch;
        sketch.Switches({"leaf-1", "leaf-2"}, 0)
            .Switch("spine-1", 1)
            .Link("leaf-1", "spine-1")
            .Link("leaf-2", "spine-1")
            .Hosts("leaf-1", {"node001", "node002"})  // 0x2001, 0x2002
            .Host("node003", "leaf-2", 1);            // 0x2003 on plane 1
        m_fabric = std::make_unique<Fabric>(sketch.Description());
    }

    JobDescription Parse(const std::string& text) {
        return ParseJobJson(text, "job.json", *m_fabric);
    }

    // The error a bad job file gives, as "<where>|<problem>" (file checked separately).
    std::string ErrorOf(const std::string& text) {
        try {
            Parse(text);
        } catch (const InputError& error) {
            EXPECT_EQ(error.file(), "job.json");
            return error.where() + "|" + error.problem();
        }
        return "no error";
    }

    std::unique_ptr<Fabric> m_fabric;
};

std::vector<std::pair<uint64_t, unsigned>> PortsOf(const JobDescription& job) {
    std::vector<std::pair<uint64_t, unsigned>> ports;
    for (const PortData& port : job.ports) {
        ports.emplace_back(port.port_guid, port.plane);
    }
    return ports;
}

TEST_F(JobFileTest, HostsByNameTakeTheHostsPortAndPlane) {
    JobDescription job = Parse(R"({"hosts": ["node001", "node003"]})");
    EXPECT_EQ(PortsOf(job), (std::vector<std::pair<uint64_t, unsigned>>{{0x2001, 0}, {0x2003, 1}}));
}

TEST_F(JobFileTest, HostsByGuidResolveLikeNames) {
    JobDescription job = Parse(R"({"hosts": ["0x2002", "0x2003"]})");
    EXPECT_EQ(PortsOf(job), (std::vector<std::pair<uint64_t, unsigned>>{{0x2002, 0}, {0x2003, 1}}));
}

TEST_F(JobFileTest, OmittedFieldsTakeTheDefaults) {
    JobDescription job = Parse(R"({"hosts": ["node001"]})");
    EXPECT_EQ(job.job_id.id_prefix, "");
    EXPECT_EQ(job.job_id.job_number, 0u);
    EXPECT_EQ(job.job_id.ToString(), "default_0");
    EXPECT_EQ(job.resource.units, 1u);
    EXPECT_EQ(job.resource.payload, 256u);
    EXPECT_EQ(job.resource.buffers, 8u);
    EXPECT_EQ(job.resource.groups, 1u);
    EXPECT_EQ(job.resource.queue_pairs, 1u);
    EXPECT_EQ(job.resource.quota_mode, 0u);
    EXPECT_EQ(job.resource.flags, 0u);
    EXPECT_EQ(job.resource.lock_options, 0u);
    EXPECT_FALSE(job.resource.requires_node_capability);
}

TEST_F(JobFileTest, EveryResourceFieldIsRead) {
    JobDescription job = Parse(R"({
        "job_id": {"prefix": "slurm", "number": 18446744073709551615},
        "hosts": ["node001"],
        "resource": {"quota": {"units": 4294967295, "payload": 1024, "buffers": 16,
                               "groups": 3, "queue_pairs": 5},
                     "quota_mode": 255, "lock_required": true, "exclusive_lock": true,
                     "requires_node_capability": true}})");
    EXPECT_EQ(job.job_id.id_prefix, "slurm");
    EXPECT_EQ(job.job_id.job_number, std::numeric_limits<uint64_t>::max());
    EXPECT_EQ(job.resource.units, 4294967295u);
    EXPECT_EQ(job.resource.payload, 1024u);
    EXPECT_EQ(job.resource.buffers, 16u);
    EXPECT_EQ(job.resource.groups, 3u);
    EXPECT_EQ(job.resource.queue_pairs, 5u);
    EXPECT_EQ(job.resource.quota_mode, 255u);
    EXPECT_EQ(job.resource.flags, uint64_t{1} << 3);
    EXPECT_EQ(job.resource.lock_options, uint32_t{1} << 1);
    EXPECT_TRUE(job.resource.IsLockRequired());
    EXPECT_TRUE(job.resource.IsExclusiveLock());
    EXPECT_TRUE(job.resource.requires_node_capability);
}

TEST_F(JobFileTest, LockFlagsFalseLeaveTheirBitsClear) {
    JobDescription job = Parse(
        R"({"hosts": ["node001"], "resource": {"lock_required": false, "exclusive_lock": false}})");
    EXPECT_FALSE(job.resource.IsLockRequired());
    EXPECT_FALSE(job.resource.IsExclusiveLock());
}

TEST_F(JobFileTest, ExclusiveLockAloneSetsOnlyTheLockOptionBit) {
    JobDescription job = Parse(R"({"hosts": ["node001"], "resource": {"exclusive_lock": true}})");
    EXPECT_EQ(job.resource.flags, 0u);
    EXPECT_EQ(job.resource.lock_options, 2u);
}

TEST_F(JobFileTest, HostsAndPortsJoinWithoutRepeats) {
    JobDescription job = Parse(R"({"hosts": ["node001", "node002", "node001", "0x2001"],
        "ports": [{"guid": "0x2002", "plane": 0}, {"guid": "0x2001", "plane": 1},
                  {"guid": "0x2003", "plane": 1}]})");
    EXPECT_EQ(PortsOf(job), (std::vector<std::pair<uint64_t, unsigned>>{
                                {0x2001, 0}, {0x2002, 0}, {0x2001, 1}, {0x2003, 1}}));
}

TEST_F(JobFileTest, PortsAloneMakeAJobAndUnknownPortGuidsPassThrough) {
    JobDescription job =
        Parse(R"({"ports": [{"guid": "0xdeadbeef"}, {"guid": "2001", "plane": 3}]})");
    EXPECT_EQ(PortsOf(job),
              (std::vector<std::pair<uint64_t, unsigned>>{{0xdeadbeef, 0}, {0x2001, 3}}));
}

struct BadJob {
    const char* name;
    const char* text;
    const char* expected;  // "<where>|<problem>"
};

// Test names show the case's name, not the bytes of the case.
void PrintTo(const BadJob& value, std::ostream* out) {
    *out << value.name;
}

class BadJobFileTest : public JobFileTest, public ::testing::WithParamInterface<BadJob> {};

TEST_P(BadJobFileTest, IsRefusedWithItsPlaceAndProblem) {
    EXPECT_EQ(ErrorOf(GetParam().text), GetParam().expected);
}

const BadJob kBadJobs[] = {
    {"TrailingComma", "{\"hosts\": [\"node001\",]}",
     "line 1, column 22|malformed JSON: unexpected ']'; expected '[', '{', or a literal"},
    {"UnclosedObjectOnThirdLine", "{\n  \"hosts\": [\"node001\"],\n  \"job_id\": {\"number\": 7}\n",
     "line 4, column 1|malformed JSON: syntax error while parsing object - unexpected end of "
     "input; expected '}'"},
    {"NotJsonAtAll", "hosts: node001",
     "line 1, column 1|malformed JSON: invalid literal; last read: 'h'"},
    {"TopLevelArray", "[\"node001\"]", "|expected an object, got an array"},
    {"UnknownHost", R"({"hosts": ["node001", "node999"]})",
     "/hosts/1|unknown host 'node999': the fabric has no host of that name or GUID"},
    {"EmptyObject", "{}", "|the job has no ports (give \"hosts\" or \"ports\")"},
    {"EmptyHostsAndPorts", R"({"hosts": [], "ports": []})",
     "|the job has no ports (give \"hosts\" or \"ports\")"},
    {"UnknownTopLevelKey", R"({"hosts": ["node001"], "host": ["node002"]})",
     "/host|unknown key \"host\" (expected one of: job_id, hosts, ports, resource)"},
    {"UnknownQuotaKey", R"({"hosts": ["node001"], "resource": {"quota": {"unit": 1}}})",
     "/resource/quota/unit|unknown key \"unit\" (expected one of: units, payload, buffers, "
     "groups, queue_pairs)"},
    {"UnknownPortKey", R"({"ports": [{"guid": "0x2001", "lid": 4}]})",
     "/ports/0/lid|unknown key \"lid\" (expected one of: guid, plane)"},
    {"HostsNotAnArray", R"({"hosts": "node001"})", "/hosts|expected an array, got a string"},
    {"HostNotAString", R"({"hosts": ["node001", 7]})", "/hosts/1|expected a string, got a number"},
    {"UnitsAboveUint32", R"({"hosts": ["node001"], "resource": {"quota": {"units": 4294967296}}})",
     "/resource/quota/units|value 4294967296 is out of range (0 to 4294967295)"},
    {"NegativeBuffers", R"({"hosts": ["node001"], "resource": {"quota": {"buffers": -1}}})",
     "/resource/quota/buffers|value -1 is out of range (0 to 4294967295)"},
    {"FractionalGroups", R"({"hosts": ["node001"], "resource": {"quota": {"groups": 1.5}}})",
     "/resource/quota/groups|expected a whole number, got 1.5"},
    {"QuotaModeAboveUint8", R"({"hosts": ["node001"], "resource": {"quota_mode": 256}})",
     "/resource/quota_mode|value 256 is out of range (0 to 255)"},
    {"JobNumberAboveUint64",
     R"({"hosts": ["node001"], "job_id": {"number": 18446744073709551616}})",
     "/job_id/number|value 1.8446744073709552e+19 is out of range (0 to 18446744073709551615)"},
    {"JobNumberAsString", R"({"hosts": ["node001"], "job_id": {"number": "7"}})",
     "/job_id/number|expected a whole number (0 to 18446744073709551615), got a string"},
    {"JobIdNotAnObject", R"({"hosts": ["node001"], "job_id": "default_7"})",
     "/job_id|expected an object, got a string"},
    {"PrefixNotAString", R"({"hosts": ["node001"], "job_id": {"prefix": 3}})",
     "/job_id/prefix|expected a string, got a number"},
    {"LockRequiredAsString", R"({"hosts": ["node001"], "resource": {"lock_required": "yes"}})",
     "/resource/lock_required|expected true or false, got a string"},
    {"CapabilityAsNumber", R"({"hosts": ["node001"], "resource": {"requires_node_capability": 1}})",
     "/resource/requires_node_capability|expected true or false, got a number"},
    {"PortWithoutGuid", R"({"ports": [{"plane": 0}]})", "/ports/0|missing key \"guid\""},
    {"PortGuidNotHex", R"({"ports": [{"guid": "0xnode"}]})",
     "/ports/0/guid|'0xnode' is not a GUID (expected hexadecimal such as \"0x2001\")"},
    {"PortPlaneAboveUint8", R"({"ports": [{"guid": "0x2001", "plane": 300}]})",
     "/ports/0/plane|value 300 is out of range (0 to 255)"},
    {"PortNotAnObject", R"({"ports": ["0x2001"]})", "/ports/0|expected an object, got a string"},
    {"ResourceNull", R"({"hosts": ["node001"], "resource": null})",
     "/resource|expected an object, got null"},
    {"KeyWithSlashIsEscapedInThePath", R"({"hosts": ["node001"], "a/b": 1})",
     "/a~1b|unknown key \"a/b\" (expected one of: job_id, hosts, ports, resource)"},
};

INSTANTIATE_TEST_SUITE_P(MalformedJobFiles, BadJobFileTest, ::testing::ValuesIn(kBadJobs),
                         [](const ::testing::TestParamInfo<BadJob>& info) {
                             return std::string(info.param.name);
                         });

TEST_F(JobFileTest, LoadJobFileReadsFromDisk) {
    std::filesystem::path dir = std::filesystem::path(::testing::TempDir()) / "job_file_test";
    std::filesystem::create_directories(dir);
    std::filesystem::path path = dir / "job.json";
    {
        std::ofstream out(path);
        out << R"({"job_id": {"number": 7}, "hosts": ["node002"]})";
    }
    JobDescription job = LoadJobFile(path.string(), *m_fabric);
    EXPECT_EQ(job.job_id.ToString(), "default_7");
    EXPECT_EQ(PortsOf(job), (std::vector<std::pair<uint64_t, unsigned>>{{0x2002, 0}}));
    std::filesystem::remove_all(dir);
}

TEST_F(JobFileTest, LoadJobFileNamesAMissingFile) {
    try {
        LoadJobFile("/nonexistent/dir/job.json", *m_fabric);
        FAIL() << "a missing job file was read";
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), "/nonexistent/dir/job.json");
        EXPECT_EQ(error.where(), "");
        EXPECT_EQ(error.problem(), "cannot open the file");
    }
}

TEST_F(JobFileTest, ErrorsInAFileOnDiskNameThatFile) {
    std::filesystem::path dir = std::filesystem::path(::testing::TempDir()) / "job_file_test_bad";
    std::filesystem::create_directories(dir);
    std::filesystem::path path = dir / "bad-job.json";
    {
        std::ofstream out(path);
        out << R"({"hosts": ["nobody"]})";
    }
    try {
        LoadJobFile(path.string(), *m_fabric);
        FAIL() << "an unknown host was accepted";
    } catch (const InputError& error) {
        EXPECT_EQ(error.file(), path.string());
        EXPECT_EQ(error.where(), "/hosts/0");
    }
    std::filesystem::remove_all(dir);
}

}  // namespace
