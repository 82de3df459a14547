// Import of ibnetdiscover dumps and fabric simulator net files.
//
// Conventions of the import:
// - A switch is named by its node description (the quoted text after '#' on its record
//   line); without one, by the record's quoted identifier when that is not a GUID form
//   (net files: "Switch1"), else by its GUID text.  Switches that would share a name are
//   all named by their GUID text instead (with a warning).
// - Names are UTF-8: bytes of a description that do not form UTF-8 are read as Latin-1.
// - A host is one Ca port cabled to a switch.  Its GUID is the port GUID in parentheses
//   on the Ca's port line (or on the switch's port line leading to it); its name is the
//   first word of the Ca's node description, falling back like switch names.  When
//   several ports of one Ca are cabled, the lowest-numbered port takes the name and each
//   other port p is named "<name>-p<p>" (node001, node001-p2).  Hosts that would share a
//   name are all named by their port GUID text (with a warning).
// - Net files carry no GUIDs: a node without one gets the 64-bit FNV-1a hash of its
//   quoted identifier, and a Ca port without a port GUID gets the hash of
//   "<identifier>/<port>", so a GUID stays the same whatever else the file holds.
// - Every physical cable is counted once, whether one or both of its ends list it;
//   parallel cables between two switches add up into the link's count.
// - Routers and their cables are ignored, with a warning.
// - Group maps mark the named switches as Dragonfly+ group switches (topology kind 3,
//   island = group id).  Then, as docs/dragonfly-plus.md recommends, every switch without
//   a link to another island (leaves, middle levels, spines without global links, and
//   the leaves of plain tree switches next to the groups) is marked defer_root, so that
//   an island's tree is rooted on switches that carry the links to other islands.
#include "topology/ibnetdiscover.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <unordered_map>

#include "fabric_model/fabric.h"
#include "topology/fabric_file.h"
#include "topology/input_error.h"
#include "topology/topology_internal.h"

namespace aggtree {

namespace {

using internal::Trim;

enum class NodeKind { kSwitch, kCa, kRouter };

const char* KindName(NodeKind kind) {
    switch (kind) {
        case NodeKind::kSwitch:
            return "Switch";
        case NodeKind::kCa:
            return "Ca";
        case NodeKind::kRouter:
            return "Rt";
    }
    return "?";
}

struct PortLine {
    size_t line = 0;
    int port = 0;
    std::string remote_key;
    std::string remote_text;  // the remote identifier as written
    int remote_port = 0;
    std::optional<uint64_t> own_port_guid;
    std::optional<uint64_t> remote_port_guid;
    std::string remote_description;
};

struct Node {
    NodeKind kind = NodeKind::kSwitch;
    int ports = 0;
    std::string key;   // identifier, GUID forms normalised
    std::string text;  // identifier as written
    bool guid_form = false;
    std::optional<uint64_t> guid;
    std::string description;
    size_t line = 0;
    bool synthesized = false;  // known only from the far end of a cable
    std::map<int, PortLine> port_lines;
};

struct End {
    size_t node = 0;
    int port = 0;
    bool operator<(const End& other) const {
        return node != other.node ? node < other.node : port < other.port;
    }
    bool operator==(const End& other) const = default;
};

uint64_t Fnv1a(std::string_view text) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    for (unsigned char c : text) {
        hash ^= c;
        hash *= 0x100000001b3ULL;
    }
    return hash == 0 ? 1 : hash;
}

bool ParseHex(std::string_view text, uint64_t& value) {
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        text.remove_prefix(2);
    }
    if (text.empty() || text.size() > 16) {
        return false;
    }
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 16);
    return ec == std::errc() && end == text.data() + text.size();
}

bool ParseInt(std::string_view text, int& value) {
    if (text.empty()) {
        return false;
    }
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value, 10);
    return ec == std::errc() && end == text.data() + text.size();
}

bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// "S-0002c90300a1b2c4" (any case) -> kind letter and GUID.
bool ParseGuidIdentifier(std::string_view text, char& letter, uint64_t& guid) {
    if (text.size() != 18 || text[1] != '-' ||
        (text[0] != 'S' && text[0] != 'H' && text[0] != 'R')) {
        return false;
    }
    for (char c : text.substr(2)) {
        if (!std::isxdigit(static_cast<unsigned char>(c))) {
            return false;
        }
    }
    letter = text[0];
    return ParseHex(text.substr(2), guid);
}

std::string NodeKey(std::string_view text) {
    char letter = 0;
    uint64_t guid = 0;
    if (ParseGuidIdentifier(text, letter, guid)) {
        return std::string(1, letter) + "-" + GuidToString(guid);
    }
    return std::string(text);
}

std::string FirstWord(std::string_view text) {
    text = Trim(text);
    size_t end = text.find_first_of(" \t");
    return std::string(text.substr(0, end));
}

// Length of the UTF-8 sequence at `text[at]` when it is well formed (RFC 3629: no
// overlong forms, no surrogates, nothing above U+10FFFF), else 0.
size_t Utf8SequenceLength(std::string_view text, size_t at) {
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    auto continuation = [&](size_t i, unsigned char low = 0x80, unsigned char high = 0xBF) {
        return i < text.size() && byte(i) >= low && byte(i) <= high;
    };
    const unsigned char lead = byte(at);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(at + 1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        const unsigned char low = lead == 0xE0 ? 0xA0 : 0x80;
        const unsigned char high = lead == 0xED ? 0x9F : 0xBF;
        return continuation(at + 1, low, high) && continuation(at + 2) ? 3 : 0;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        const unsigned char low = lead == 0xF0 ? 0x90 : 0x80;
        const unsigned char high = lead == 0xF4 ? 0x8F : 0xBF;
        return continuation(at + 1, low, high) && continuation(at + 2) && continuation(at + 3) ? 4
                                                                                               : 0;
    }
    return 0;
}

// A name as valid UTF-8: well-formed sequences kept, every other byte read as Latin-1
// (node descriptions written in a legacy encoding), so that the name can be written to
// a fabric file and a JSON result, and the same bytes always give the same name.
std::string ValidUtf8(std::string_view text) {
    std::string name;
    name.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const size_t length = Utf8SequenceLength(text, at);
        if (length != 0) {
            name.append(text.substr(at, length));
            at += length;
            continue;
        }
        const auto byte = static_cast<unsigned char>(text[at++]);
        name += static_cast<char>(0xC0 | (byte >> 6));
        name += static_cast<char>(0x80 | (byte & 0x3F));
    }
    return name;
}

// The text between the first and the last double quote of `text` (empty without two).
std::string QuotedPart(std::string_view text) {
    size_t first = text.find('"');
    size_t last = text.rfind('"');
    if (first == std::string_view::npos || last == first) {
        return {};
    }
    return std::string(text.substr(first + 1, last - first - 1));
}

class Importer {
public:
    Importer(std::string_view text, const std::string& file_name,
             std::vector<std::string>* warnings)
        : m_text(text), m_file(file_name), m_warnings(warnings) {}

    FabricDescription Run(std::string_view groups_text, const std::string& groups_file,
                          std::string_view roots_text, const std::string& roots_file);

private:
    [[noreturn]] void Fail(size_t line, const std::string& problem) const {
        throw InputError(m_file, line == 0 ? std::string() : "line " + std::to_string(line),
                         problem);
    }
    void Warn(const std::string& text) const {
        if (m_warnings != nullptr) {
            m_warnings->push_back(text);
        }
    }

    void ReadLines();
    void ReadGuidLine(std::string_view line, size_t number);
    void ReadRecordHeader(size_t number, NodeKind kind, std::string_view rest);
    void ReadPortLine(std::string_view line, size_t number);
    std::string NodeName(const Node& node) const;
    void Resolve();
    FabricDescription Build();
    void ApplyGroups(FabricDescription& description, std::string_view text,
                     const std::string& file_name);

    std::string_view m_text;
    const std::string& m_file;
    std::vector<std::string>* m_warnings;

    std::vector<Node> m_nodes;
    std::unordered_map<std::string, size_t> m_node_by_key;
    Node* m_current = nullptr;

    // GUID lines waiting for their record.
    std::optional<NodeKind> m_pending_kind;
    std::optional<uint64_t> m_pending_guid;
    size_t m_pending_line = 0;

    // Resolution results.
    std::vector<std::pair<End, End>> m_cables;  // in order of first mention
    std::map<End, const PortLine*> m_claimed;   // end -> port line that names it
    std::vector<size_t> m_switch_lines;         // record line of each built switch
};

void Importer::ReadLines() {
    size_t number = 0;
    size_t start = 0;
    while (start < m_text.size()) {
        size_t end = m_text.find('\n', start);
        if (end == std::string_view::npos) {
            end = m_text.size();
        }
        std::string_view line = Trim(m_text.substr(start, end - start));
        start = end + 1;
        ++number;
        if (line.empty() || line.front() == '#' || StartsWith(line, "Chassis") ||
            StartsWith(line, "Non-Chassis") || StartsWith(line, "Non Chassis")) {
            continue;
        }
        if (line.front() == '[') {
            ReadPortLine(line, number);
            continue;
        }
        size_t word_end = line.find_first_of(" \t");
        std::string_view word = line.substr(0, word_end);
        std::string_view rest =
            word_end == std::string_view::npos ? std::string_view() : line.substr(word_end);
        if (word == "Switch") {
            ReadRecordHeader(number, NodeKind::kSwitch, rest);
        } else if (word == "Ca" || word == "Hca") {
            ReadRecordHeader(number, NodeKind::kCa, rest);
        } else if (word == "Rt") {
            ReadRecordHeader(number, NodeKind::kRouter, rest);
        } else if (size_t equals = word.find('='); equals != std::string_view::npos && equals > 0) {
            ReadGuidLine(line, number);
        } else {
            std::string shown(line.substr(0, 60));
            Fail(number, "unrecognised line \"" + shown + (line.size() > 60 ? "..." : "") +
                             "\" (expected a Switch, Ca or Rt record, a GUID line or a port "
                             "line)");
        }
    }
}

void Importer::ReadGuidLine(std::string_view line, size_t number) {
    size_t equals = line.find('=');
    std::string_view key = line.substr(0, equals);
    std::string_view value = Trim(line.substr(equals + 1));
    NodeKind kind;
    if (key == "switchguid") {
        kind = NodeKind::kSwitch;
    } else if (key == "caguid") {
        kind = NodeKind::kCa;
    } else if (key == "rtguid") {
        kind = NodeKind::kRouter;
    } else {
        // vendid, devid, sysimgguid and other attributes of the next record.
        if (key == "vendid" || key == "devid" || key == "sysimgguid") {
            uint64_t ignored = 0;
            if (!ParseHex(value, ignored)) {
                Fail(number, std::string(key) + " must be a hexadecimal number, got \"" +
                                 std::string(value) + "\"");
            }
        }
        return;
    }
    // "0x<node guid>" optionally followed by "(<port guid>)".
    std::string_view guid_text = value.substr(0, value.find('('));
    uint64_t guid = 0;
    if (!ParseHex(Trim(guid_text), guid) || guid == 0) {
        Fail(number, std::string(key) + " must be a GUID such as 0x0002c90300a1b2c4, got \"" +
                         std::string(value) + "\"");
    }
    if (size_t open = value.find('('); open != std::string_view::npos) {
        size_t close = value.find(')', open);
        uint64_t port_guid = 0;
        if (close == std::string_view::npos ||
            !ParseHex(value.substr(open + 1, close - open - 1), port_guid)) {
            Fail(number, "malformed port GUID in parentheses on the " + std::string(key) + " line");
        }
    }
    m_pending_kind = kind;
    m_pending_guid = guid;
    m_pending_line = number;
}

void Importer::ReadRecordHeader(size_t number, NodeKind kind, std::string_view rest) {
    rest = Trim(rest);
    size_t digits_end = rest.find_first_not_of("0123456789");
    int ports = 0;
    if (digits_end == 0 || !ParseInt(rest.substr(0, digits_end), ports)) {
        Fail(number, std::string("expected the number of ports after \"") + KindName(kind) + "\"");
    }
    if (ports < 1 || ports > 255) {
        Fail(number, "a node has from 1 to 255 ports, not " + std::to_string(ports));
    }
    rest =
        digits_end == std::string_view::npos ? std::string_view() : Trim(rest.substr(digits_end));
    if (rest.empty() || rest.front() != '"') {
        Fail(number, "expected the node's quoted identifier after its number of ports");
    }
    size_t close = rest.find('"', 1);
    if (close == std::string_view::npos) {
        Fail(number, "the node's identifier lacks its closing quote");
    }
    std::string_view id = rest.substr(1, close - 1);
    if (id.empty()) {
        Fail(number, "the node's identifier is empty");
    }
    std::string_view trailer = Trim(rest.substr(close + 1));

    Node node;
    node.kind = kind;
    node.ports = ports;
    node.text = std::string(id);
    node.key = NodeKey(id);
    node.line = number;
    char letter = 0;
    uint64_t id_guid = 0;
    if (ParseGuidIdentifier(id, letter, id_guid)) {
        node.guid_form = true;
        const char expected = kind == NodeKind::kSwitch ? 'S' : kind == NodeKind::kCa ? 'H' : 'R';
        if (letter != expected) {
            Fail(number, std::string("a ") + KindName(kind) +
                             " record cannot carry the identifier \"" + std::string(id) +
                             "\" (expected the prefix " + expected + "-)");
        }
        node.guid = id_guid;
    }
    if (!trailer.empty() && trailer.front() == '#') {
        node.description = std::string(Trim(QuotedPart(trailer)));
    }
    if (m_pending_kind.has_value()) {
        if (*m_pending_kind != kind) {
            Fail(number, std::string("a ") + KindName(kind) + " record follows the " +
                             (*m_pending_kind == NodeKind::kSwitch ? "switchguid"
                              : *m_pending_kind == NodeKind::kCa   ? "caguid"
                                                                   : "rtguid") +
                             " line " + std::to_string(m_pending_line));
        }
        if (node.guid.has_value() && *node.guid != *m_pending_guid) {
            Fail(number, "the identifier \"" + std::string(id) + "\" does not match the GUID " +
                             GuidToString(*m_pending_guid) + " of line " +
                             std::to_string(m_pending_line));
        }
        node.guid = m_pending_guid;
        m_pending_kind.reset();
        m_pending_guid.reset();
    }
    auto [it, inserted] = m_node_by_key.emplace(node.key, m_nodes.size());
    if (!inserted) {
        Fail(number, "a second record for \"" + std::string(id) + "\" (the first is at line " +
                         std::to_string(m_nodes[it->second].line) + ")");
    }
    m_nodes.push_back(std::move(node));
    m_current = &m_nodes.back();
}

void Importer::ReadPortLine(std::string_view line, size_t number) {
    if (m_current == nullptr) {
        Fail(number, "a port line before any Switch or Ca record");
    }
    const std::string form =
        "expected a port line such as [3]\t\"S-0002c90300a1b2c4\"[17] or [1](2c90300a1b2c5)\t"
        "\"S-0002c90300a1b2c4\"[3]";
    std::string_view rest = line;
    // "[<port>]" and an optional "[ext N]".
    auto read_port = [&](int& port) {
        if (rest.empty() || rest.front() != '[') {
            Fail(number, form);
        }
        size_t close = rest.find(']');
        if (close == std::string_view::npos || !ParseInt(rest.substr(1, close - 1), port)) {
            Fail(number, form);
        }
        rest = rest.substr(close + 1);
        if (StartsWith(rest, "[ext ")) {
            size_t ext_close = rest.find(']');
            int ext = 0;
            if (ext_close == std::string_view::npos ||
                !ParseInt(rest.substr(5, ext_close - 5), ext)) {
                Fail(number, "malformed [ext N] after a port number");
            }
            rest = rest.substr(ext_close + 1);
        }
    };
    auto read_guid_in_parentheses = [&](std::optional<uint64_t>& guid) {
        if (rest.empty() || rest.front() != '(') {
            return;
        }
        size_t close = rest.find(')');
        uint64_t value = 0;
        if (close == std::string_view::npos || !ParseHex(rest.substr(1, close - 1), value) ||
            value == 0) {
            Fail(number, "malformed port GUID in parentheses (expected hexadecimal digits)");
        }
        guid = value;
        rest = rest.substr(close + 1);
    };

    PortLine port;
    port.line = number;
    read_port(port.port);
    read_guid_in_parentheses(port.own_port_guid);
    rest = Trim(rest);
    if (rest.empty() || rest.front() != '"') {
        Fail(number, form);
    }
    size_t close = rest.find('"', 1);
    if (close == std::string_view::npos || close == 1) {
        Fail(number, form);
    }
    port.remote_text = std::string(rest.substr(1, close - 1));
    port.remote_key = NodeKey(port.remote_text);
    rest = rest.substr(close + 1);
    read_port(port.remote_port);
    read_guid_in_parentheses(port.remote_port_guid);

    // Optional key=value fields (w=4, s=..., v=...) and a trailing comment.
    rest = Trim(rest);
    while (!rest.empty() && rest.front() != '#') {
        size_t end = rest.find_first_of(" \t");
        std::string_view token = rest.substr(0, end);
        if (token.find('=') == std::string_view::npos || token.front() == '=') {
            Fail(number, "unexpected \"" + std::string(token) + "\" after the remote port");
        }
        rest = end == std::string_view::npos ? std::string_view() : Trim(rest.substr(end));
    }
    if (!rest.empty()) {
        port.remote_description = std::string(Trim(QuotedPart(rest)));
    }

    Node& node = *m_current;
    if (port.port < 1 || port.port > node.ports) {
        Fail(number, "port " + std::to_string(port.port) + " does not exist on \"" + node.text +
                         "\", which has ports 1 to " + std::to_string(node.ports));
    }
    if (port.remote_port < 1 || port.remote_port > 255) {
        Fail(number,
             "remote port " + std::to_string(port.remote_port) + " is out of range (1 to 255)");
    }
    if (node.kind == NodeKind::kSwitch && port.own_port_guid.has_value()) {
        Fail(number, "a switch port line carries no port GUID after the port number");
    }
    auto [it, inserted] = node.port_lines.emplace(port.port, port);
    if (!inserted) {
        Fail(number, "port " + std::to_string(port.port) + " of \"" + node.text +
                         "\" is listed twice (also at line " + std::to_string(it->second.line) +
                         ")");
    }
}

std::string Importer::NodeName(const Node& node) const {
    if (node.kind == NodeKind::kSwitch) {
        if (!node.description.empty()) {
            return ValidUtf8(node.description);
        }
    } else {
        std::string word = FirstWord(node.description);
        if (!word.empty()) {
            return ValidUtf8(word);
        }
    }
    if (!node.guid_form) {
        return ValidUtf8(node.text);
    }
    return GuidToString(*node.guid);
}

void Importer::Resolve() {
    // Nodes known only from the far end of a cable: Cas, from the switch's port line.
    // They join m_nodes after the walk, which reads the port lines in place: growing
    // m_nodes under it would move the map being walked.
    const size_t recorded = m_nodes.size();
    std::vector<Node> synthesized;
    for (size_t n = 0; n < recorded; ++n) {
        for (const auto& [port, line] : m_nodes[n].port_lines) {
            if (m_node_by_key.count(line.remote_key) != 0) {
                continue;
            }
            char letter = 0;
            uint64_t guid = 0;
            if (ParseGuidIdentifier(line.remote_text, letter, guid) &&
                (letter == 'H' || letter == 'R')) {
                Node node;
                node.kind = letter == 'H' ? NodeKind::kCa : NodeKind::kRouter;
                node.ports = 255;
                node.text = line.remote_text;
                node.key = line.remote_key;
                node.guid_form = true;
                node.guid = guid;
                node.description = line.remote_description;
                node.line = line.line;
                node.synthesized = true;
                m_node_by_key.emplace(node.key, recorded + synthesized.size());
                synthesized.push_back(std::move(node));
                continue;
            }
            Fail(line.line, "port " + std::to_string(port) + " leads to \"" + line.remote_text +
                                "\", which has no record in the file");
        }
    }
    for (Node& node : synthesized) {
        m_nodes.push_back(std::move(node));
    }
    m_current = nullptr;
    // GUIDs for nodes of net files.
    std::unordered_map<uint64_t, size_t> by_guid;
    for (size_t n = 0; n < m_nodes.size(); ++n) {
        Node& node = m_nodes[n];
        if (!node.guid.has_value()) {
            node.guid = Fnv1a(node.text);
        }
        if (node.kind != NodeKind::kSwitch) {
            continue;
        }
        auto [it, inserted] = by_guid.emplace(*node.guid, n);
        if (!inserted) {
            Fail(node.line, "switch GUID " + GuidToString(*node.guid) +
                                " is already the GUID of the record at line " +
                                std::to_string(m_nodes[it->second].line));
        }
    }
    // Cables: every end named by at most one port line, both ends agreeing.
    std::set<std::pair<End, End>> seen;
    for (size_t n = 0; n < m_nodes.size(); ++n) {
        for (const auto& [port, line] : m_nodes[n].port_lines) {
            End near{n, port};
            size_t far_node = m_node_by_key.at(line.remote_key);
            End far{far_node, line.remote_port};
            const Node& remote = m_nodes[far_node];
            if (!remote.synthesized && line.remote_port > remote.ports) {
                Fail(line.line, "port " + std::to_string(line.remote_port) +
                                    " does not exist on \"" + remote.text +
                                    "\", which has ports 1 to " + std::to_string(remote.ports));
            }
            auto back = remote.port_lines.find(line.remote_port);
            if (back != remote.port_lines.end() &&
                (back->second.remote_key != m_nodes[n].key || back->second.remote_port != port)) {
                const PortLine& other = back->second;
                Fail(line.line, "port " + std::to_string(port) + " of \"" + m_nodes[n].text +
                                    "\" leads to port " + std::to_string(line.remote_port) +
                                    " of \"" + remote.text + "\", but line " +
                                    std::to_string(other.line) + " says that port leads to port " +
                                    std::to_string(other.remote_port) + " of \"" +
                                    other.remote_text + "\"");
            }
            if (back == remote.port_lines.end()) {
                // Only this side lists the cable: no other line may name the far end.
                auto [claim, fresh] = m_claimed.emplace(far, &line);
                if (!fresh) {
                    Fail(line.line, "port " + std::to_string(line.remote_port) + " of \"" +
                                        remote.text + "\" is also named at line " +
                                        std::to_string(claim->second->line));
                }
            }
            auto cable = std::minmax(near, far);
            if (seen.insert(cable).second) {
                m_cables.emplace_back(cable.first, cable.second);
            }
        }
    }
}

FabricDescription Importer::Build() {
    FabricDescription description;
    std::vector<size_t> switch_of_node(m_nodes.size(), SIZE_MAX);
    std::vector<size_t> switch_line;

    // Switches, in the order of their records.
    std::map<std::string, std::vector<size_t>> switch_names;
    for (size_t n = 0; n < m_nodes.size(); ++n) {
        const Node& node = m_nodes[n];
        if (node.kind == NodeKind::kRouter) {
            Warn("line " + std::to_string(node.line) + ": router \"" + NodeName(node) +
                 "\" and its cables are ignored");
            continue;
        }
        if (node.kind != NodeKind::kSwitch) {
            continue;
        }
        SwitchDescription sw;
        sw.guid = *node.guid;
        sw.name = NodeName(node);
        switch_of_node[n] = description.switches.size();
        switch_names[sw.name].push_back(description.switches.size());
        switch_line.push_back(node.line);
        description.switches.push_back(std::move(sw));
    }
    if (description.switches.empty()) {
        Fail(0, "no Switch record found (is this an ibnetdiscover dump?)");
    }
    for (const auto& [name, indices] : switch_names) {
        if (indices.size() < 2) {
            continue;
        }
        for (size_t i : indices) {
            description.switches[i].name = GuidToString(description.switches[i].guid);
        }
        Warn(std::to_string(indices.size()) + " switches share the description \"" + name +
             "\"; they are named by their GUIDs");
    }

    // Switch links and host ports, from the cables.
    std::map<std::pair<size_t, size_t>, size_t> link_of_pair;
    struct CaAttachment {
        size_t switch_index;
        const PortLine* ca_line;      // the Ca's own port line, if listed
        const PortLine* switch_line;  // the switch's port line, if listed
    };
    std::map<size_t, std::map<int, CaAttachment>> ca_ports;
    for (const auto& [first, second] : m_cables) {
        const Node& a = m_nodes[first.node];
        const Node& b = m_nodes[second.node];
        if (a.kind == NodeKind::kRouter || b.kind == NodeKind::kRouter) {
            continue;
        }
        if (a.kind == NodeKind::kSwitch && b.kind == NodeKind::kSwitch) {
            if (first.node == second.node) {
                Warn("switch \"" + NodeName(a) + "\" has port " + std::to_string(first.port) +
                     " cabled to its own port " + std::to_string(second.port) + "; ignored");
                continue;
            }
            size_t sa = switch_of_node[first.node];
            size_t sb = switch_of_node[second.node];
            auto key = std::minmax(sa, sb);
            auto [it, inserted] = link_of_pair.emplace(key, description.links.size());
            if (inserted) {
                LinkDescription link;
                link.a = sa;
                link.b = sb;
                link.count = 1;
                description.links.push_back(link);
            } else {
                ++description.links[it->second].count;
            }
            continue;
        }
        if (a.kind == NodeKind::kCa && b.kind == NodeKind::kCa) {
            Warn("Ca \"" + NodeName(a) + "\" port " + std::to_string(first.port) +
                 " is cabled straight to Ca \"" + NodeName(b) + "\"; ignored");
            continue;
        }
        const End& ca = a.kind == NodeKind::kCa ? first : second;
        const End& sw = a.kind == NodeKind::kCa ? second : first;
        auto find_line = [&](const End& end) -> const PortLine* {
            auto it = m_nodes[end.node].port_lines.find(end.port);
            return it == m_nodes[end.node].port_lines.end() ? nullptr : &it->second;
        };
        ca_ports[ca.node][ca.port] = {switch_of_node[sw.node], find_line(ca), find_line(sw)};
    }

    // Hosts, in the order of the Ca records and their ports.
    struct HostDraft {
        HostDescription host;
        size_t line;
    };
    std::vector<HostDraft> drafts;
    for (const auto& [ca_node, ports] : ca_ports) {
        const Node& ca = m_nodes[ca_node];
        const std::string base = NodeName(ca);
        bool first_port = true;
        for (const auto& [port, attachment] : ports) {
            const PortLine* own_line = attachment.ca_line;
            const PortLine* sw_line = attachment.switch_line;
            // The port GUID from the Ca's line, else from the switch's line.
            std::optional<uint64_t> guid;
            size_t line = own_line != nullptr ? own_line->line : sw_line->line;
            if (own_line != nullptr) {
                guid = own_line->own_port_guid;
            }
            if (sw_line != nullptr && sw_line->remote_port_guid.has_value()) {
                if (guid.has_value() && *guid != *sw_line->remote_port_guid) {
                    Fail(sw_line->line,
                         "the port GUID " + GuidToString(*sw_line->remote_port_guid) +
                             " differs from " + GuidToString(*guid) +
                             ", given for that Ca port at line " + std::to_string(line));
                }
                guid = sw_line->remote_port_guid;
            }
            if (!guid.has_value()) {
                if (ca.guid_form) {
                    Fail(line, "the port GUID of Ca \"" + ca.text + "\" port " +
                                   std::to_string(port) +
                                   " is missing (expected it in "
                                   "parentheses after the port number)");
                }
                guid = Fnv1a(ca.text + "/" + std::to_string(port));
            }
            HostDraft draft;
            draft.host.guid = *guid;
            draft.host.switch_index = attachment.switch_index;
            if (ca.description.empty() && ca.guid_form) {
                draft.host.name = GuidToString(*guid);
            } else if (first_port) {
                draft.host.name = base;
            } else {
                draft.host.name = base + "-p" + std::to_string(port);
            }
            first_port = false;
            draft.line = line;
            drafts.push_back(std::move(draft));
        }
    }
    std::map<std::string, std::vector<size_t>> host_names;
    std::unordered_map<uint64_t, size_t> host_guids;
    for (size_t h = 0; h < drafts.size(); ++h) {
        auto [it, inserted] = host_guids.emplace(drafts[h].host.guid, h);
        if (!inserted) {
            Fail(drafts[h].line, "host port GUID " + GuidToString(drafts[h].host.guid) +
                                     " is also the GUID of the host port at line " +
                                     std::to_string(drafts[it->second].line));
        }
        host_names[drafts[h].host.name].push_back(h);
    }
    for (const auto& [name, indices] : host_names) {
        if (indices.size() < 2) {
            continue;
        }
        for (size_t h : indices) {
            drafts[h].host.name = GuidToString(drafts[h].host.guid);
        }
        Warn(std::to_string(indices.size()) + " host ports would be named \"" + name +
             "\"; they are named by their port GUIDs");
    }
    for (HostDraft& draft : drafts) {
        description.hosts.push_back(std::move(draft.host));
    }
    m_switch_lines = std::move(switch_line);
    return description;
}

void Importer::ApplyGroups(FabricDescription& description, std::string_view text,
                           const std::string& file_name) {
    internal::SwitchLookup lookup(description);
    std::map<size_t, std::pair<uint16_t, size_t>> group_of;  // switch -> group, line
    size_t number = 0;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = text.substr(start, end - start);
        start = end + 1;
        ++number;
        const std::string where = "line " + std::to_string(number);
        if (size_t hash = line.find('#'); hash != std::string_view::npos) {
            line = line.substr(0, hash);
        }
        line = Trim(line);
        if (line.empty()) {
            continue;
        }
        size_t split = line.find_last_of(" \t");
        if (split == std::string_view::npos) {
            throw InputError(
                file_name, where,
                "expected \"<switch name or GUID> <group id>\", got \"" + std::string(line) + "\"");
        }
        std::string_view name = Trim(line.substr(0, split));
        std::string_view group_text = line.substr(split + 1);
        if (name.size() >= 2 && name.front() == '"' && name.back() == '"') {
            name = name.substr(1, name.size() - 2);
        }
        int group = 0;
        if (!ParseInt(group_text, group) || group < 0 || group > 65534) {
            throw InputError(file_name, where,
                             "the group id must be an integer from 0 to 65534, got \"" +
                                 std::string(group_text) + "\"");
        }
        std::ptrdiff_t index = lookup.Find(name);
        char letter = 0;
        uint64_t guid = 0;
        if (index < 0 && ParseGuidIdentifier(name, letter, guid) && letter == 'S') {
            index = lookup.Find(GuidToString(guid));
        }
        if (index < 0) {
            throw InputError(
                file_name, where,
                "unknown switch \"" + std::string(name) + "\" (not in " + m_file + ")");
        }
        auto [it, inserted] = group_of.emplace(
            static_cast<size_t>(index), std::make_pair(static_cast<uint16_t>(group), number));
        if (!inserted) {
            throw InputError(file_name, where,
                             "switch \"" + description.switches[static_cast<size_t>(index)].name +
                                 "\" is already given a group at line " +
                                 std::to_string(it->second.second));
        }
    }
    for (const auto& [index, group] : group_of) {
        SwitchDescription& sw = description.switches[index];
        sw.topology_kind = 3;
        sw.dfp_group_id = group.first;
    }
}

FabricDescription Importer::Run(std::string_view groups_text, const std::string& groups_file,
                                std::string_view roots_text, const std::string& roots_file) {
    ReadLines();
    if (m_pending_kind.has_value()) {
        Fail(m_pending_line, "a GUID line without a record after it");
    }
    Resolve();
    FabricDescription description = Build();
    if (!Trim(groups_text).empty()) {
        ApplyGroups(description, groups_text, groups_file);
    }
    if (!Trim(roots_text).empty()) {
        description.roots = internal::ParseRootsText(description, roots_text, roots_file);
    }
    const internal::SwitchLocator locate = [this](size_t index) {
        return "line " + std::to_string(m_switch_lines[index]);
    };
    internal::InferRanksLocated(description, m_file, locate, m_warnings);
    internal::CheckFabricLimitsLocated(description, m_file, locate);
    internal::MarkDragonflyPlusDeferRoots(description);
    return description;
}

}  // namespace

bool LooksLikeIbnetdiscover(std::string_view text) {
    std::string_view start = Trim(text);
    if (start.empty() || start.front() == '{' || start.front() == '[') {
        return false;
    }
    size_t begin = 0;
    while (begin < text.size()) {
        size_t end = text.find('\n', begin);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = Trim(text.substr(begin, end - begin));
        begin = end + 1;
        if (StartsWith(line, "# Topology file") || StartsWith(line, "switchguid=") ||
            StartsWith(line, "caguid=") || StartsWith(line, "vendid=")) {
            return true;
        }
        for (std::string_view word : {"Switch", "Ca", "Hca", "Rt"}) {
            if (StartsWith(line, word) && line.size() > word.size() &&
                (line[word.size()] == ' ' || line[word.size()] == '\t')) {
                return true;
            }
        }
    }
    return false;
}

FabricDescription ParseIbnetdiscover(std::string_view text, const std::string& file_name,
                                     std::string_view groups_text,
                                     const std::string& groups_file_name,
                                     std::string_view roots_text,
                                     const std::string& roots_file_name,
                                     std::vector<std::string>* warnings) {
    return NameFileOnOutOfMemory(file_name, [&] {
        Importer importer(text, file_name, warnings);
        return importer.Run(groups_text, groups_file_name.empty() ? "group map" : groups_file_name,
                            roots_text, roots_file_name.empty() ? "roots" : roots_file_name);
    });
}

}  // namespace aggtree
