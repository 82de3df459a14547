#include "topology/fabric_file.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <queue>
#include <set>
#include <unordered_map>

#include "fabric_model/fabric.h"
#include "topology/ibnetdiscover.h"
#include "topology/input_limits.h"
#include "topology/topology_internal.h"

namespace aggtree {

using nlohmann::json;

namespace internal {

std::string_view Trim(std::string_view text) {
    const char* blanks = " \t\r\n\f\v";
    size_t first = text.find_first_not_of(blanks);
    if (first == std::string_view::npos) {
        return {};
    }
    size_t last = text.find_last_not_of(blanks);
    return text.substr(first, last - first + 1);
}

SwitchLookup::SwitchLookup(const FabricDescription& description) {
    for (size_t i = 0; i < description.switches.size(); ++i) {
        m_by_name.emplace(description.switches[i].name, i);
        m_by_guid.emplace(description.switches[i].guid, i);
    }
}

std::ptrdiff_t SwitchLookup::Find(std::string_view name_or_guid) const {
    auto by_name = m_by_name.find(std::string(name_or_guid));
    if (by_name != m_by_name.end()) {
        return static_cast<std::ptrdiff_t>(by_name->second);
    }
    uint64_t guid = 0;
    if (name_or_guid.size() > 2 && name_or_guid[0] == '0' &&
        (name_or_guid[1] == 'x' || name_or_guid[1] == 'X') && ParseGuid(name_or_guid, guid)) {
        auto by_guid = m_by_guid.find(guid);
        if (by_guid != m_by_guid.end()) {
            return static_cast<std::ptrdiff_t>(by_guid->second);
        }
    }
    return -1;
}

std::vector<size_t> ParseRootsText(const FabricDescription& description, std::string_view text,
                                   const std::string& file_name) {
    SwitchLookup lookup(description);
    std::vector<size_t> roots;
    size_t line_number = 0;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = text.substr(start, end - start);
        ++line_number;
        start = end + 1;
        size_t hash = line.find('#');
        if (hash != std::string_view::npos) {
            line = line.substr(0, hash);
        }
        line = Trim(line);
        if (line.size() >= 2 && line.front() == '"' && line.back() == '"') {
            line = line.substr(1, line.size() - 2);
        }
        if (line.empty()) {
            continue;
        }
        std::ptrdiff_t index = lookup.Find(line);
        if (index < 0) {
            throw InputError(file_name, "line " + std::to_string(line_number),
                             "unknown switch \"" + std::string(line) + "\"");
        }
        if (std::find(roots.begin(), roots.end(), static_cast<size_t>(index)) == roots.end()) {
            roots.push_back(static_cast<size_t>(index));
        }
    }
    return roots;
}

std::string ReadTextFile(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        throw InputError(path, "", "cannot read the file: it is a directory");
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        throw InputError(path, "", std::string("cannot read the file: ") + std::strerror(errno));
    }
    return ReadLimitedStream(in, path);
}

std::string JsonErrorLocation(std::string_view text, size_t chars_read) {
    const size_t in_text = std::min(chars_read, text.size());
    size_t line = 1;
    size_t line_start = 0;
    for (size_t i = 0; i < in_text; ++i) {
        if (text[i] == '\n') {
            ++line;
            line_start = i + 1;
        }
    }
    const size_t column = chars_read - line_start;
    return "line " + std::to_string(line) + ", column " + std::to_string(column);
}

namespace {

// Counts how deep a document nests, without building it; stops at a syntax error (the
// parse that builds the document reports it).  A number too large for a double is
// reported here, with its place: the parse that builds the document reports it without.
class NestingChecker : public nlohmann::json_sax<json> {
public:
    NestingChecker(std::string_view text, const std::string& file_name)
        : m_text(text), m_file(file_name) {}

    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool start_object(std::size_t) override { return Open(); }
    bool key(string_t&) override { return true; }
    bool end_object() override { return Close(); }
    bool start_array(std::size_t) override { return Open(); }
    bool end_array() override { return Close(); }
    bool parse_error(std::size_t position, const std::string& last_token,
                     const nlohmann::detail::exception& error) override {
        constexpr int kNumberOverflow = 406;
        if (error.id == kNumberOverflow) {
            constexpr size_t kShown = 40;
            throw InputError(m_file, JsonErrorLocation(m_text, position),
                             "malformed JSON: the number '" + last_token.substr(0, kShown) +
                                 (last_token.size() > kShown ? "..." : "") + "' is too large");
        }
        return false;
    }

private:
    bool Open() {
        if (++m_depth > kMaxJsonDepth) {
            throw InputError(m_file, "",
                             "the JSON nests deeper than " + std::to_string(kMaxJsonDepth) +
                                 " levels (aggtree's files nest at most 4)");
        }
        return true;
    }
    bool Close() {
        --m_depth;
        return true;
    }

    std::string_view m_text;
    const std::string& m_file;
    int m_depth = 0;
};

}  // namespace

nlohmann::json ParseJsonNestingLimited(std::string_view text, const std::string& file_name) {
    NestingChecker checker(text, file_name);
    json::sax_parse(text, &checker);
    return json::parse(text);
}

std::string JsonErrorProblem(std::string_view what) {
    // "[json.exception.parse_error.101] parse error at line 1, column 5: <problem>"
    size_t column = what.find(", column ");
    size_t colon = what.find(": ", column == std::string_view::npos ? 0 : column);
    std::string_view problem = colon == std::string_view::npos ? what : what.substr(colon + 2);
    constexpr std::string_view kLastRead = "; last read: '";
    constexpr size_t kShownToken = 40;
    size_t last_read = problem.find(kLastRead);
    if (last_read != std::string_view::npos &&
        problem.size() - last_read - kLastRead.size() > kShownToken + 1) {
        return std::string(problem.substr(0, last_read + kLastRead.size() + kShownToken)) + "...'";
    }
    return std::string(problem);
}

void InferRanksLocated(FabricDescription& description, const std::string& file_name,
                       const SwitchLocator& locate, std::vector<std::string>* warnings) {
    const size_t n = description.switches.size();
    std::vector<uint16_t> island(n);
    for (size_t i = 0; i < n; ++i) {
        island[i] = GetSwitchDescriptionIslandId(description.switches[i]);
    }
    std::vector<std::vector<size_t>> neighbours(n);
    for (const LinkDescription& link : description.links) {
        if (link.a < n && link.b < n && link.a != link.b && island[link.a] == island[link.b]) {
            neighbours[link.a].push_back(link.b);
            neighbours[link.b].push_back(link.a);
        }
    }
    std::vector<bool> has_hosts(n, false);
    for (const HostDescription& host : description.hosts) {
        if (host.switch_index < n) {
            has_hosts[host.switch_index] = true;
        }
    }
    std::vector<bool> explicit_rank(n);
    for (size_t i = 0; i < n; ++i) {
        explicit_rank[i] = description.switches[i].rank.has_value();
    }

    std::map<uint16_t, std::vector<size_t>> roots_by_island;
    for (size_t root : description.roots) {
        if (root < n) {
            roots_by_island[island[root]].push_back(root);
        }
    }

    auto refuse = [&](size_t i, const std::string& why) {
        throw InputError(
            file_name, locate ? locate(i) : std::string(),
            "switch \"" + description.switches[i].name + "\" cannot be ranked: " + why);
    };

    constexpr int kUnreached = std::numeric_limits<int>::max();

    // Islands with roots: ranks counted down from the top.
    for (const auto& [island_id, roots] : roots_by_island) {
        std::vector<int> distance(n, kUnreached);
        std::queue<size_t> queue;
        for (size_t root : roots) {
            if (distance[root] != 0) {
                distance[root] = 0;
                queue.push(root);
            }
        }
        int largest = 0;
        while (!queue.empty()) {
            size_t s = queue.front();
            queue.pop();
            largest = std::max(largest, distance[s]);
            for (size_t t : neighbours[s]) {
                if (distance[t] == kUnreached) {
                    distance[t] = distance[s] + 1;
                    queue.push(t);
                }
            }
        }
        for (size_t i = 0; i < n; ++i) {
            if (island[i] != island_id || explicit_rank[i]) {
                continue;
            }
            if (distance[i] == kUnreached) {
                refuse(i, "no path leads to it from the roots of its island");
            }
            description.switches[i].rank = largest - distance[i];
        }
    }

    // Other islands: switches with hosts at rank 0, the others one above their lowest
    // neighbour (explicit ranks count as given).
    std::vector<int> rank(n, kUnreached);
    using Entry = std::pair<int, size_t>;
    std::priority_queue<Entry, std::vector<Entry>, std::greater<>> frontier;
    for (size_t i = 0; i < n; ++i) {
        if (roots_by_island.count(island[i]) != 0) {
            continue;
        }
        if (explicit_rank[i]) {
            rank[i] = *description.switches[i].rank;
        } else if (has_hosts[i]) {
            rank[i] = 0;
        } else {
            continue;
        }
        frontier.emplace(rank[i], i);
    }
    while (!frontier.empty()) {
        auto [r, s] = frontier.top();
        frontier.pop();
        if (r != rank[s]) {
            continue;
        }
        for (size_t t : neighbours[s]) {
            if (explicit_rank[t] || has_hosts[t]) {
                continue;
            }
            if (r + 1 < rank[t]) {
                rank[t] = r + 1;
                frontier.emplace(rank[t], t);
            }
        }
    }
    for (size_t i = 0; i < n; ++i) {
        if (roots_by_island.count(island[i]) != 0 || explicit_rank[i]) {
            continue;
        }
        if (rank[i] == kUnreached) {
            refuse(i,
                   "it has no hosts and no link to a ranked switch of its island; give it a "
                   "\"rank\" or name the top switches in \"roots\"");
        }
        description.switches[i].rank = rank[i];
    }

    if (warnings == nullptr) {
        return;
    }
    std::set<std::pair<size_t, size_t>> warned;
    for (const LinkDescription& link : description.links) {
        size_t a = std::min(link.a, link.b);
        size_t b = std::max(link.a, link.b);
        if (b >= n || a == b || island[a] != island[b] || roots_by_island.count(island[a]) != 0 ||
            explicit_rank[a] || explicit_rank[b] || !has_hosts[a] || !has_hosts[b] ||
            !warned.emplace(a, b).second) {
            continue;
        }
        warnings->push_back("switches \"" + description.switches[a].name + "\" and \"" +
                            description.switches[b].name +
                            "\" both have hosts and are linked to each other, so both get rank "
                            "0 and their link carries no path; if one of them sits above the "
                            "other (service hosts on a spine), give \"roots\" (--roots on "
                            "import) naming the top switches");
    }
}

void MarkDragonflyPlusDeferRoots(FabricDescription& description) {
    const auto is_group_switch = [](const SwitchDescription& sw) {
        return sw.topology_kind == 2 || sw.topology_kind == 3;
    };
    if (std::none_of(description.switches.begin(), description.switches.end(), is_group_switch)) {
        return;
    }
    std::vector<bool> has_global_link(description.switches.size(), false);
    for (const LinkDescription& link : description.links) {
        if (link.a < description.switches.size() && link.b < description.switches.size() &&
            GetSwitchDescriptionIslandId(description.switches[link.a]) !=
                GetSwitchDescriptionIslandId(description.switches[link.b])) {
            has_global_link[link.a] = true;
            has_global_link[link.b] = true;
        }
    }
    for (size_t i = 0; i < description.switches.size(); ++i) {
        description.switches[i].defer_root = !has_global_link[i];
    }
}

}  // namespace internal

namespace {

// ----------------------------------------------------------------------------------------
// JSON paths and malformed JSON

std::string EscapePointerToken(std::string_view token) {
    std::string out;
    for (char c : token) {
        if (c == '~') {
            out += "~0";
        } else if (c == '/') {
            out += "~1";
        } else {
            out += c;
        }
    }
    return out;
}

std::string Child(const std::string& path, std::string_view key) {
    return path + "/" + EscapePointerToken(key);
}

std::string Child(const std::string& path, size_t index) {
    return path + "/" + std::to_string(index);
}

// Finds the first key that appears twice in one object (nlohmann keeps only the last).
class DuplicateKeyFinder : public nlohmann::json_sax<json> {
public:
    std::string duplicate_path;
    std::string duplicate_key;

    bool null() override { return Value(); }
    bool boolean(bool) override { return Value(); }
    bool number_integer(number_integer_t) override { return Value(); }
    bool number_unsigned(number_unsigned_t) override { return Value(); }
    bool number_float(number_float_t, const string_t&) override { return Value(); }
    bool string(string_t&) override { return Value(); }
    bool binary(binary_t&) override { return Value(); }
    bool start_object(std::size_t) override {
        Value();
        m_stack.push_back(Frame{false, 0, {}, {}});
        return true;
    }
    bool key(string_t& key) override {
        Frame& top = m_stack.back();
        top.key = key;
        if (!top.keys.insert(key).second) {
            duplicate_key = key;
            duplicate_path = Path();
            return false;
        }
        return true;
    }
    bool end_object() override {
        m_stack.pop_back();
        return true;
    }
    bool start_array(std::size_t) override {
        Value();
        m_stack.push_back(Frame{true, 0, {}, {}});
        return true;
    }
    bool end_array() override {
        m_stack.pop_back();
        return true;
    }
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    struct Frame {
        bool array;
        size_t next_index;
        std::string key;
        std::set<std::string> keys;
    };

    bool Value() {
        if (!m_stack.empty() && m_stack.back().array) {
            ++m_stack.back().next_index;
        }
        return true;
    }

    std::string Path() const {
        std::string path;
        for (const Frame& frame : m_stack) {
            path = frame.array ? Child(path, frame.next_index - 1) : Child(path, frame.key);
        }
        return path;
    }

    std::vector<Frame> m_stack;
};

json ParseJsonText(std::string_view text, const std::string& file_name) {
    json document;
    try {
        document = internal::ParseJsonNestingLimited(text, file_name);
    } catch (const json::parse_error& error) {
        throw InputError(file_name, internal::JsonErrorLocation(text, error.byte),
                         "malformed JSON: " + internal::JsonErrorProblem(error.what()));
    }
    DuplicateKeyFinder finder;
    try {
        json::sax_parse(text, &finder);
    } catch (...) {
        internal::DismantleJson(document);
        throw;
    }
    if (!finder.duplicate_path.empty()) {
        internal::DismantleJson(document);
        throw InputError(file_name, finder.duplicate_path,
                         "key \"" + finder.duplicate_key + "\" appears twice in one object");
    }
    return document;
}

// ----------------------------------------------------------------------------------------
// Typed reading with JSON paths

std::string Describe(const json& value) {
    switch (value.type()) {
        case json::value_t::object:
            return "an object";
        case json::value_t::array:
            return "an array";
        case json::value_t::null:
            return "null";
        default: {
            std::string text = value.dump();
            if (text.size() > 40) {
                text = text.substr(0, 37) + "...";
            }
            return text;
        }
    }
}

size_t EditDistance(std::string_view a, std::string_view b) {
    std::vector<size_t> row(b.size() + 1);
    for (size_t j = 0; j <= b.size(); ++j) {
        row[j] = j;
    }
    for (size_t i = 1; i <= a.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i;
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] != b[j - 1])});
            diagonal = above;
        }
    }
    return row[b.size()];
}

class Reader {
public:
    explicit Reader(const std::string& file_name) : m_file(file_name) {}

    [[noreturn]] void Fail(const std::string& path, const std::string& problem) const {
        throw InputError(m_file, path, problem);
    }

    void ExpectObject(const json& value, const std::string& path) const {
        if (!value.is_object()) {
            Fail(path, "expected an object, got " + Describe(value));
        }
    }

    void ExpectArray(const json& value, const std::string& path) const {
        if (!value.is_array()) {
            Fail(path, "expected an array, got " + Describe(value));
        }
    }

    // Refuses keys of `object` that are not in `allowed`.
    void CheckKeys(const json& object, const std::string& path,
                   std::initializer_list<std::string_view> allowed) const {
        for (const auto& item : object.items()) {
            const std::string& key = item.key();
            if (std::find(allowed.begin(), allowed.end(), key) != allowed.end()) {
                continue;
            }
            std::string problem = "unknown key \"" + key + "\"";
            std::string_view best;
            size_t best_distance = 3;
            for (std::string_view candidate : allowed) {
                size_t distance = EditDistance(key, candidate);
                if (distance < best_distance) {
                    best_distance = distance;
                    best = candidate;
                }
            }
            if (!best.empty()) {
                problem += " (did you mean \"" + std::string(best) + "\"?)";
            }
            Fail(Child(path, key), problem);
        }
    }

    const json& Required(const json& object, const std::string& path, const char* key) const {
        auto it = object.find(key);
        if (it == object.end()) {
            Fail(Child(path, key), std::string("required key \"") + key + "\" is missing");
        }
        return *it;
    }

    const json* Optional(const json& object, const char* key) const {
        auto it = object.find(key);
        return it == object.end() ? nullptr : &*it;
    }

    // An integer from `low` to `high`.
    int64_t Integer(const json& value, const std::string& path, int64_t low, int64_t high) const {
        std::string range = " from " + std::to_string(low) + " to " + std::to_string(high);
        if (value.is_number_unsigned()) {
            uint64_t number = value.get<uint64_t>();
            if (number > static_cast<uint64_t>(high) || static_cast<int64_t>(number) < low) {
                Fail(path, std::to_string(number) + " is out of range (expected an integer" +
                               range + ")");
            }
            return static_cast<int64_t>(number);
        }
        if (value.is_number_integer()) {
            int64_t number = value.get<int64_t>();
            if (number < low || number > high) {
                Fail(path, std::to_string(number) + " is out of range (expected an integer" +
                               range + ")");
            }
            return number;
        }
        Fail(path, "expected an integer" + range + ", got " + Describe(value));
    }

    template <typename T>
    void ReadUnsigned(const json& object, const std::string& path, const char* key, T& out,
                      int64_t low = 0) const {
        if (const json* value = Optional(object, key)) {
            out = static_cast<T>(Integer(*value, Child(path, key), low,
                                         static_cast<int64_t>(std::numeric_limits<T>::max())));
        }
    }

    void ReadBool(const json& object, const std::string& path, const char* key, bool& out) const {
        if (const json* value = Optional(object, key)) {
            if (!value->is_boolean()) {
                Fail(Child(path, key), "expected true or false, got " + Describe(*value));
            }
            out = value->get<bool>();
        }
    }

    std::string String(const json& value, const std::string& path) const {
        if (!value.is_string()) {
            Fail(path, "expected a string, got " + Describe(value));
        }
        return value.get<std::string>();
    }

    std::string Name(const json& value, const std::string& path) const {
        std::string name = String(value, path);
        if (name.empty()) {
            Fail(path, "a name must not be empty");
        }
        return name;
    }

    uint64_t Guid(const json& value, const std::string& path) const {
        const std::string expectation = "expected a GUID string such as \"0x0002c90300a1b2c4\"";
        if (!value.is_string()) {
            Fail(path, expectation + ", got " + Describe(value));
        }
        const std::string text = value.get<std::string>();
        uint64_t guid = 0;
        if (text.size() < 3 || text[0] != '0' || (text[1] != 'x' && text[1] != 'X') ||
            !ParseGuid(text, guid)) {
            Fail(path, expectation + ", got " + Describe(value));
        }
        if (guid == 0) {
            Fail(path, "GUID 0x0 is not a valid GUID");
        }
        return guid;
    }

    std::vector<uint16_t> TreeIds(const json& value, const std::string& path) const {
        ExpectArray(value, path);
        std::vector<uint16_t> ids;
        for (size_t i = 0; i < value.size(); ++i) {
            ids.push_back(static_cast<uint16_t>(Integer(value[i], Child(path, i), 0, 65535)));
        }
        return ids;
    }

private:
    const std::string& m_file;
};

// Switch names and GUIDs as they were read, for references and duplicate checks.
struct SwitchIndex {
    std::unordered_map<std::string, size_t> by_name;
    std::unordered_map<uint64_t, size_t> by_guid;
};

size_t ResolveSwitch(const Reader& reader, const SwitchIndex& index, const json& value,
                     const std::string& path) {
    if (!value.is_string()) {
        reader.Fail(path, "expected a switch name or GUID string, got " + Describe(value));
    }
    const std::string text = value.get<std::string>();
    auto by_name = index.by_name.find(text);
    if (by_name != index.by_name.end()) {
        return by_name->second;
    }
    uint64_t guid = 0;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X') &&
        ParseGuid(text, guid)) {
        auto by_guid = index.by_guid.find(guid);
        if (by_guid != index.by_guid.end()) {
            return by_guid->second;
        }
    }
    reader.Fail(path, "unknown switch \"" + text + "\"");
}

SwitchDescription ReadSwitch(const Reader& reader, const json& value, const std::string& path) {
    reader.ExpectObject(value, path);
    reader.CheckKeys(value, path,
                     {"guid",
                      "name",
                      "rank",
                      "topology_kind",
                      "dfp_group_id",
                      "defer_root",
                      "plane",
                      "plane_known",
                      "plane_enabled",
                      "node_attr",
                      "tree_children_limit",
                      "valid",
                      "excluded",
                      "mode",
                      "has_required_capability",
                      "lock_available",
                      "exclusive_lock_available",
                      "resources",
                      "used_tree_ids",
                      "active_trees"});
    SwitchDescription sw;
    sw.guid = reader.Guid(reader.Required(value, path, "guid"), Child(path, "guid"));
    sw.name = reader.Name(reader.Required(value, path, "name"), Child(path, "name"));
    if (const json* rank = reader.Optional(value, "rank")) {
        sw.rank = static_cast<int>(
            reader.Integer(*rank, Child(path, "rank"), 0, std::numeric_limits<int>::max()));
    }
    reader.ReadUnsigned(value, path, "topology_kind", sw.topology_kind);
    reader.ReadUnsigned(value, path, "dfp_group_id", sw.dfp_group_id);
    reader.ReadBool(value, path, "defer_root", sw.defer_root);
    reader.ReadUnsigned(value, path, "plane", sw.plane);
    reader.ReadBool(value, path, "plane_known", sw.plane_known);
    reader.ReadBool(value, path, "plane_enabled", sw.plane_enabled);
    reader.ReadUnsigned(value, path, "node_attr", sw.node_attr);
    reader.ReadUnsigned(value, path, "tree_children_limit", sw.tree_children_limit);
    reader.ReadBool(value, path, "valid", sw.valid);
    reader.ReadBool(value, path, "excluded", sw.excluded);
    reader.ReadUnsigned(value, path, "mode", sw.mode);
    reader.ReadBool(value, path, "has_required_capability", sw.has_required_capability);
    reader.ReadBool(value, path, "lock_available", sw.lock_available);
    reader.ReadBool(value, path, "exclusive_lock_available", sw.exclusive_lock_available);
    if (const json* resources = reader.Optional(value, "resources")) {
        const std::string resources_path = Child(path, "resources");
        reader.ExpectObject(*resources, resources_path);
        reader.CheckKeys(*resources, resources_path, {"units", "buffers", "groups", "queue_pairs"});
        reader.ReadUnsigned(*resources, resources_path, "units", sw.resources.units);
        reader.ReadUnsigned(*resources, resources_path, "buffers", sw.resources.buffers);
        reader.ReadUnsigned(*resources, resources_path, "groups", sw.resources.groups);
        reader.ReadUnsigned(*resources, resources_path, "queue_pairs", sw.resources.queue_pairs);
    }
    if (const json* used = reader.Optional(value, "used_tree_ids")) {
        sw.used_tree_ids = reader.TreeIds(*used, Child(path, "used_tree_ids"));
    }
    reader.ReadUnsigned(value, path, "active_trees", sw.active_trees);
    return sw;
}

LinkDescription ReadLink(const Reader& reader, const SwitchIndex& index,
                         const FabricDescription& description, const json& value,
                         const std::string& path) {
    reader.ExpectObject(value, path);
    reader.CheckKeys(value, path,
                     {"a", "b", "count", "plane", "usable", "lock_limit", "lock_count",
                      "exclusive_lock_count", "exclusively_locked"});
    LinkDescription link;
    link.a = ResolveSwitch(reader, index, reader.Required(value, path, "a"), Child(path, "a"));
    link.b = ResolveSwitch(reader, index, reader.Required(value, path, "b"), Child(path, "b"));
    if (link.a == link.b) {
        reader.Fail(path,
                    "switch \"" + description.switches[link.a].name + "\" is linked to itself");
    }
    reader.ReadUnsigned(value, path, "count", link.count, 1);
    reader.ReadUnsigned(value, path, "plane", link.plane);
    reader.ReadBool(value, path, "usable", link.usable);
    reader.ReadUnsigned(value, path, "lock_limit", link.lock_limit);
    reader.ReadUnsigned(value, path, "lock_count", link.lock_count);
    reader.ReadUnsigned(value, path, "exclusive_lock_count", link.exclusive_lock_count);
    reader.ReadBool(value, path, "exclusively_locked", link.exclusively_locked);
    return link;
}

// A JSON array holding `to_json` of each of `items`, in their order.
template <typename Items, typename ToJson>
nlohmann::ordered_json JsonArray(const Items& items, const ToJson& to_json) {
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto& item : items) {
        array.push_back(to_json(item));
    }
    return array;
}

// ParseFabricJson without the naming of the file on running out of memory.
FabricDescription ReadFabricJson(std::string_view text, const std::string& file_name,
                                 std::vector<std::string>* warnings) {
    json document = ParseJsonText(text, file_name);
    const internal::JsonDismantler<json> dismantler(document);
    Reader reader(file_name);
    if (!document.is_object()) {
        reader.Fail("", "expected a JSON object at the top level, got " + Describe(document));
    }
    const std::string root;
    const json& version = reader.Required(document, root, "aggtree_fabric");
    if (!version.is_number_integer() || version.get<int64_t>() != 1) {
        reader.Fail("/aggtree_fabric", "unsupported fabric file version " + Describe(version) +
                                           " (this aggtree reads version 1)");
    }
    reader.CheckKeys(document, root,
                     {"aggtree_fabric", "max_tree_id", "sat_tree_ids", "options", "switches",
                      "links", "hosts", "job_tree_ids", "roots"});

    FabricDescription description;
    reader.ReadUnsigned(document, root, "max_tree_id", description.max_tree_id);
    if (const json* sat = reader.Optional(document, "sat_tree_ids")) {
        description.sat_tree_ids = reader.TreeIds(*sat, "/sat_tree_ids");
    }
    if (const json* options = reader.Optional(document, "options")) {
        reader.ExpectObject(*options, "/options");
        reader.CheckKeys(*options, "/options",
                         {"max_tree_children", "max_childless_islands", "dfp_fallback_search"});
        reader.ReadUnsigned(*options, "/options", "max_tree_children",
                            description.options.max_tree_children);
        reader.ReadUnsigned(*options, "/options", "max_childless_islands",
                            description.options.max_childless_islands);
        reader.ReadBool(*options, "/options", "dfp_fallback_search",
                        description.options.dfp_fallback_search);
    }

    // Switches.
    const json& switches = reader.Required(document, root, "switches");
    reader.ExpectArray(switches, "/switches");
    SwitchIndex index;
    for (size_t i = 0; i < switches.size(); ++i) {
        const std::string path = Child("/switches", i);
        SwitchDescription sw = ReadSwitch(reader, switches[i], path);
        auto [name_it, new_name] = index.by_name.emplace(sw.name, i);
        if (!new_name) {
            reader.Fail(Child(path, "name"), "duplicate switch name \"" + sw.name + "\" (also at " +
                                                 Child("/switches", name_it->second) + ")");
        }
        auto [guid_it, new_guid] = index.by_guid.emplace(sw.guid, i);
        if (!new_guid) {
            reader.Fail(Child(path, "guid"), "duplicate switch GUID " + GuidToString(sw.guid) +
                                                 " (also at " +
                                                 Child("/switches", guid_it->second) + ")");
        }
        for (size_t k = 0; k < sw.used_tree_ids.size(); ++k) {
            if (sw.used_tree_ids[k] > description.max_tree_id) {
                reader.Fail(Child(Child(path, "used_tree_ids"), k),
                            "tree id " + std::to_string(sw.used_tree_ids[k]) +
                                " is above max_tree_id " + std::to_string(description.max_tree_id));
            }
        }
        description.switches.push_back(std::move(sw));
    }

    // Links.
    const json& links = reader.Required(document, root, "links");
    reader.ExpectArray(links, "/links");
    for (size_t i = 0; i < links.size(); ++i) {
        description.links.push_back(
            ReadLink(reader, index, description, links[i], Child("/links", i)));
    }

    // Hosts.
    const json& hosts = reader.Required(document, root, "hosts");
    reader.ExpectArray(hosts, "/hosts");
    std::map<std::string, size_t> host_names;
    std::map<std::pair<uint64_t, uint8_t>, size_t> host_ports;
    for (size_t i = 0; i < hosts.size(); ++i) {
        const std::string path = Child("/hosts", i);
        const json& value = hosts[i];
        reader.ExpectObject(value, path);
        reader.CheckKeys(value, path, {"guid", "name", "plane", "switch"});
        HostDescription host;
        host.guid = reader.Guid(reader.Required(value, path, "guid"), Child(path, "guid"));
        if (const json* name = reader.Optional(value, "name")) {
            host.name = reader.Name(*name, Child(path, "name"));
        } else {
            host.name = GuidToString(host.guid);
        }
        reader.ReadUnsigned(value, path, "plane", host.plane);
        host.switch_index = ResolveSwitch(reader, index, reader.Required(value, path, "switch"),
                                          Child(path, "switch"));
        auto [port_it, new_port] = host_ports.emplace(std::make_pair(host.guid, host.plane), i);
        if (!new_port) {
            reader.Fail(path, "duplicate host port " + GuidToString(host.guid) + " on plane " +
                                  std::to_string(host.plane) + " (also at " +
                                  Child("/hosts", port_it->second) + ")");
        }
        auto [name_it, new_name] = host_names.emplace(host.name, i);
        if (!new_name) {
            reader.Fail(value.contains("name") ? Child(path, "name") : path,
                        "duplicate host name \"" + host.name + "\" (also at " +
                            Child("/hosts", name_it->second) + ")");
        }
        description.hosts.push_back(std::move(host));
    }

    // Tree ids held by jobs.
    if (const json* jobs = reader.Optional(document, "job_tree_ids")) {
        reader.ExpectArray(*jobs, "/job_tree_ids");
        std::map<std::string, size_t> seen;
        for (size_t i = 0; i < jobs->size(); ++i) {
            const std::string path = Child("/job_tree_ids", i);
            const json& value = (*jobs)[i];
            reader.ExpectObject(value, path);
            reader.CheckKeys(value, path, {"job", "tree_ids"});
            JobTreeIdsDescription job;
            job.job = reader.Name(reader.Required(value, path, "job"), Child(path, "job"));
            job.tree_ids =
                reader.TreeIds(reader.Required(value, path, "tree_ids"), Child(path, "tree_ids"));
            auto [it, inserted] = seen.emplace(job.job, i);
            if (!inserted) {
                reader.Fail(Child(path, "job"), "job \"" + job.job +
                                                    "\" is listed twice (also at " +
                                                    Child("/job_tree_ids", it->second) + ")");
            }
            description.job_tree_ids.push_back(std::move(job));
        }
    }

    // Roots, then ranks.
    if (const json* roots = reader.Optional(document, "roots")) {
        reader.ExpectArray(*roots, "/roots");
        for (size_t i = 0; i < roots->size(); ++i) {
            size_t sw = ResolveSwitch(reader, index, (*roots)[i], Child("/roots", i));
            if (std::find(description.roots.begin(), description.roots.end(), sw) ==
                description.roots.end()) {
                description.roots.push_back(sw);
            }
        }
    }
    const internal::SwitchLocator locate = [](size_t i) { return Child("/switches", i); };
    internal::InferRanksLocated(description, file_name, locate, warnings);
    internal::CheckFabricLimitsLocated(description, file_name, locate);
    return description;
}

}  // namespace

FabricDescription ParseFabricJson(std::string_view text, const std::string& file_name,
                                  std::vector<std::string>* warnings) {
    return NameFileOnOutOfMemory(file_name,
                                 [&] { return ReadFabricJson(text, file_name, warnings); });
}

void InferRanks(FabricDescription& description, const std::string& file_name,
                std::vector<std::string>* warnings) {
    internal::InferRanksLocated(description, file_name, {}, warnings);
}

std::string WriteFabricJson(const FabricDescription& description) {
    using ordered = nlohmann::ordered_json;
    auto name_of = [&](size_t index) -> std::string {
        return index < description.switches.size() ? description.switches[index].name
                                                   : std::string();
    };
    ordered out;
    out["aggtree_fabric"] = 1;
    out["max_tree_id"] = description.max_tree_id;
    out["sat_tree_ids"] = description.sat_tree_ids;
    out["options"] = {{"max_tree_children", description.options.max_tree_children},
                      {"max_childless_islands", description.options.max_childless_islands}};
    if (!description.options.dfp_fallback_search) {
        // Written only when turned off, so fabrics that keep the default read as before.
        out["options"]["dfp_fallback_search"] = false;
    }
    if (!description.roots.empty()) {
        out["roots"] = JsonArray(description.roots, name_of);
    }
    out["switches"] = JsonArray(description.switches, [](const SwitchDescription& sw) {
        ordered s;
        s["guid"] = GuidToString(sw.guid);
        s["name"] = sw.name;
        if (sw.rank.has_value()) {
            s["rank"] = *sw.rank;
        }
        s["topology_kind"] = sw.topology_kind;
        s["dfp_group_id"] = sw.dfp_group_id;
        s["defer_root"] = sw.defer_root;
        s["plane"] = sw.plane;
        s["plane_known"] = sw.plane_known;
        s["plane_enabled"] = sw.plane_enabled;
        s["node_attr"] = sw.node_attr;
        s["tree_children_limit"] = sw.tree_children_limit;
        s["valid"] = sw.valid;
        s["excluded"] = sw.excluded;
        s["mode"] = sw.mode;
        s["has_required_capability"] = sw.has_required_capability;
        s["lock_available"] = sw.lock_available;
        s["exclusive_lock_available"] = sw.exclusive_lock_available;
        s["resources"] = {{"units", sw.resources.units},
                          {"buffers", sw.resources.buffers},
                          {"groups", sw.resources.groups},
                          {"queue_pairs", sw.resources.queue_pairs}};
        s["used_tree_ids"] = sw.used_tree_ids;
        s["active_trees"] = sw.active_trees;
        return s;
    });
    out["links"] = JsonArray(description.links, [&](const LinkDescription& link) {
        ordered l;
        l["a"] = name_of(link.a);
        l["b"] = name_of(link.b);
        l["count"] = link.count;
        l["plane"] = link.plane;
        l["usable"] = link.usable;
        l["lock_limit"] = link.lock_limit;
        l["lock_count"] = link.lock_count;
        l["exclusive_lock_count"] = link.exclusive_lock_count;
        l["exclusively_locked"] = link.exclusively_locked;
        return l;
    });
    out["hosts"] = JsonArray(description.hosts, [&](const HostDescription& host) {
        ordered h;
        h["guid"] = GuidToString(host.guid);
        h["name"] = host.name;
        h["plane"] = host.plane;
        h["switch"] = name_of(host.switch_index);
        return h;
    });
    out["job_tree_ids"] = JsonArray(description.job_tree_ids, [](const JobTreeIdsDescription& job) {
        return ordered{{"job", job.job}, {"tree_ids", job.tree_ids}};
    });
    // Names that are not valid UTF-8 (from a library caller's description) are written
    // with replacement characters rather than not at all.
    return out.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

namespace {

// LoadFabric without the naming of the file on running out of memory.
FabricDescription LoadFabricInput(const std::string& path, const FabricLoadOptions& options,
                                  std::vector<std::string>* warnings) {
    const std::string text = internal::ReadTextFile(path);
    if (LooksLikeIbnetdiscover(text)) {
        std::string groups_text;
        std::string roots_text;
        if (!options.groups_file.empty()) {
            groups_text = NameFileOnOutOfMemory(
                options.groups_file, [&] { return internal::ReadTextFile(options.groups_file); });
        }
        if (!options.roots_file.empty()) {
            roots_text = NameFileOnOutOfMemory(
                options.roots_file, [&] { return internal::ReadTextFile(options.roots_file); });
        }
        return ParseIbnetdiscover(text, path, groups_text, options.groups_file, roots_text,
                                  options.roots_file, warnings);
    }
    if (!options.groups_file.empty()) {
        throw InputError(options.groups_file, "",
                         "a group map applies to ibnetdiscover dumps only; " + path +
                             " is a fabric file, give \"topology_kind\" and \"dfp_group_id\" "
                             "of its switches there");
    }
    if (!options.roots_file.empty()) {
        throw InputError(options.roots_file, "",
                         "a roots file applies to ibnetdiscover dumps only; " + path +
                             " is a fabric file, list the top switches in its \"roots\"");
    }
    return ParseFabricJson(text, path, warnings);
}

}  // namespace

FabricDescription LoadFabric(const std::string& path, const FabricLoadOptions& options,
                             std::vector<std::string>* warnings) {
    return NameFileOnOutOfMemory(path, [&] { return LoadFabricInput(path, options, warnings); });
}

}  // namespace aggtree
