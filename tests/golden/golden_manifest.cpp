#include "golden_manifest.h"

#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "cli/aggtree_runner.h"

namespace aggtree_golden {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void Fail(const std::string& what) {
    throw std::runtime_error(what);
}

// FNV-1a: a fixed hash of a recipe, for cache file names.
std::string HashText(const std::string& text) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char c : text) {
        hash = (hash ^ c) * 0x100000001b3ULL;
    }
    std::ostringstream hex;
    hex << std::hex << hash;
    return hex.str();
}

std::string ReadText(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        Fail("cannot read " + path.string());
    }
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Writes beside the target and renames, so that a concurrent reader sees all or nothing.
void WriteAtomically(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    fs::path temporary = path;
    temporary += ".tmp" + std::to_string(getpid());
    {
        std::ofstream out(temporary, std::ios::binary);
        out << text;
        if (!out) {
            Fail("cannot write " + temporary.string());
        }
    }
    fs::rename(temporary, path);
}

std::vector<std::string> StringList(const Json& value, const std::string& where) {
    if (!value.is_array()) {
        Fail(where + ": expected a list of strings");
    }
    std::vector<std::string> list;
    for (const Json& item : value) {
        if (!item.is_string()) {
            Fail(where + ": expected a list of strings");
        }
        list.push_back(item.get<std::string>());
    }
    return list;
}

void CheckName(const std::string& name, const std::string& what) {
    static const std::regex kName("[a-z0-9]+(_[a-z0-9]+)*");
    if (!std::regex_match(name, kName)) {
        Fail(what + " '" + name + "': use lower-case letters, digits and single underscores");
    }
}

void CheckKeys(const Json& object, const std::set<std::string>& allowed, const std::string& where) {
    if (!object.is_object()) {
        Fail(where + ": expected an object");
    }
    for (const auto& item : object.items()) {
        if (allowed.count(item.key()) == 0) {
            Fail(where + ": unknown key '" + item.key() + "'");
        }
    }
}

}  // namespace

GoldenManifest::GoldenManifest(const fs::path& manifest, const fs::path& source_dir,
                               const fs::path& work_dir, const std::string& aggtree_binary)
    : m_source_dir(source_dir), m_work_dir(work_dir), m_binary(aggtree_binary) {
    m_binary_stamp = std::to_string(fs::file_size(m_binary)) + ":" +
                     std::to_string(fs::last_write_time(m_binary).time_since_epoch().count());
    Json document;
    try {
        document = Json::parse(ReadText(manifest));
    } catch (const Json::exception& error) {
        Fail(manifest.string() + ": " + error.what());
    }
    CheckKeys(document, {"comment", "fabrics"}, manifest.string());
    if (!document.contains("fabrics")) {
        Fail(manifest.string() + ": no fabrics");
    }
    if (!document["fabrics"].is_object()) {
        Fail("/fabrics: expected an object");
    }
    for (const auto& [id, spec] : document["fabrics"].items()) {
        ReadFabric(id, spec);
    }
}

void GoldenManifest::ReadFabric(const std::string& id, const Json& spec) {
    const std::string where = "/fabrics/" + id;
    CheckName(id, "fabric id");
    CheckKeys(spec, {"comment", "generate", "file", "groups", "base", "patch", "jobs"}, where);
    const int sources = static_cast<int>(spec.contains("generate")) +
                        static_cast<int>(spec.contains("file")) +
                        static_cast<int>(spec.contains("base"));
    if (sources != 1) {
        Fail(where + ": give exactly one of generate, file and base");
    }
    if (spec.contains("base") && (m_fabrics.count(spec["base"].get<std::string>()) == 0 ||
                                  !spec.contains("patch") || !spec["patch"].is_array())) {
        Fail(where + ": base must name a fabric listed before it, with a patch (a list)");
    }
    m_fabrics[id] = spec;
    if (!spec.contains("jobs")) {
        return;
    }
    if (!spec["jobs"].is_object()) {
        Fail(where + "/jobs: expected an object");
    }
    for (const auto& [name, job] : spec["jobs"].items()) {
        ReadJob(id, name, job);
    }
}

void GoldenManifest::ReadJob(const std::string& fabric, const std::string& name, const Json& spec) {
    const std::string where = "/fabrics/" + fabric + "/jobs/" + name;
    CheckName(name, "job name");
    GoldenCase golden_case;
    golden_case.fabric = fabric;
    golden_case.job = name;
    if (spec.is_array()) {
        golden_case.job_args = StringList(spec, where);
    } else {
        CheckKeys(spec, {"comment", "args", "job", "job_file", "skip_under_sanitizers"}, where);
        if (spec.contains("args")) {
            golden_case.job_args = StringList(spec["args"], where + "/args");
        }
        if (spec.contains("job")) {
            golden_case.inline_job = spec["job"];
        }
        if (spec.contains("job_file")) {
            golden_case.job_args.push_back("--job");
            golden_case.job_args.push_back(
                (m_source_dir / spec["job_file"].get<std::string>()).string());
        }
        golden_case.skip_under_sanitizers = spec.value("skip_under_sanitizers", false);
    }
    for (const GoldenCase& other : m_cases) {
        if (other.TestName() == golden_case.TestName()) {
            Fail(where + ": the case name " + golden_case.TestName() + " is taken");
        }
    }
    m_cases.push_back(std::move(golden_case));
}

fs::path GoldenManifest::Cached(const std::string& id, const std::string& recipe) const {
    return m_work_dir / "fabrics" / (id + "-" + HashText(m_binary_stamp + "\n" + recipe) + ".json");
}

PreparedFabric GoldenManifest::Prepare(const std::string& fabric_id) const {
    auto found = m_fabrics.find(fabric_id);
    if (found == m_fabrics.end()) {
        Fail("no fabric '" + fabric_id + "' in the manifest");
    }
    const Json& spec = found->second;
    PreparedFabric prepared;
    if (spec.contains("file")) {
        prepared.file = m_source_dir / spec["file"].get<std::string>();
        if (spec.contains("groups")) {
            prepared.build_args = {"--groups",
                                   (m_source_dir / spec["groups"].get<std::string>()).string()};
        }
        return prepared;
    }
    if (spec.contains("generate")) {
        std::vector<std::string> args = {"generate"};
        for (const std::string& arg : StringList(spec["generate"], fabric_id + "/generate")) {
            args.push_back(arg);
        }
        prepared.file = Cached(fabric_id, spec["generate"].dump());
        if (!fs::exists(prepared.file)) {
            aggtree_cli_test::RunResult run = aggtree_cli_test::RunAggtree(args);
            if (run.exit_code != 0) {
                Fail("generating fabric " + fabric_id + " failed: " + run.err);
            }
            WriteAtomically(prepared.file, run.out);
        }
        return prepared;
    }
    const PreparedFabric base = Prepare(spec["base"].get<std::string>());
    prepared.build_args = base.build_args;
    prepared.file = Cached(fabric_id, base.file.string() + "\n" + spec["patch"].dump());
    if (!fs::exists(prepared.file)) {
        Json fabric;
        try {
            fabric = Json::parse(ReadText(base.file)).patch(spec["patch"]);
        } catch (const Json::exception& error) {
            Fail("patching " + spec["base"].get<std::string>() + " into " + fabric_id +
                 " failed: " + error.what());
        }
        WriteAtomically(prepared.file, fabric.dump(2) + "\n");
    }
    return prepared;
}

fs::path GoldenManifest::WriteJobFile(const GoldenCase& golden_case) const {
    fs::path path = m_work_dir / "jobs" / (golden_case.TestName() + ".json");
    WriteAtomically(path, golden_case.inline_job->dump(2) + "\n");
    return path;
}

fs::path RepositoryDir() {
    if (const char* dir = std::getenv("AGGTREE_SOURCE_DIR"); dir != nullptr && *dir != '\0') {
        return dir;
    }
    return AGGTREE_GOLDEN_REPOSITORY_DIR;
}

fs::path GoldenSourceDir() {
    return RepositoryDir() / "tests" / "golden";
}

const GoldenManifest* TheManifest(std::string* error) {
    static std::string load_error;
    static const std::unique_ptr<GoldenManifest> manifest =
        []() -> std::unique_ptr<GoldenManifest> {
        try {
            return std::make_unique<GoldenManifest>(GoldenSourceDir() / "cases.json",
                                                    RepositoryDir(), AGGTREE_GOLDEN_WORK_DIR,
                                                    AGGTREE_BINARY);
        } catch (const std::exception& failure) {
            load_error = failure.what();
            return nullptr;
        }
    }();
    if (error != nullptr) {
        *error = load_error;
    }
    return manifest.get();
}

}  // namespace aggtree_golden
