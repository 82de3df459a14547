// Helpers shared by the topology readers (fabric file, ibnetdiscover import, group maps).
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "fabric_model/fabric_description.h"

namespace aggtree::internal {

// Where a switch stands in its input ("/switches/3", "line 12"), for error messages.
using SwitchLocator = std::function<std::string(size_t switch_index)>;

// InferRanks, naming a switch that cannot be ranked by `locate(index)`.
void InferRanksLocated(FabricDescription& description, const std::string& file_name,
                       const SwitchLocator& locate, std::vector<std::string>* warnings);

// CheckFabricLimits, naming the offending switch's place by `locate(index)`.
void CheckFabricLimitsLocated(const FabricDescription& description, const std::string& file_name,
                              const SwitchLocator& locate);

// In a fabric with Dragonfly+ group switches (topology kind 2 or 3), marks every switch
// that has no link to another island as defer_root, so that an island's tree is rooted
// on switches that carry links to other islands (leaves and spines without global links
// defer; docs/dragonfly-plus.md).  A fabric without group switches is left as it is.
void MarkDragonflyPlusDeferRoots(FabricDescription& description);

// The text without leading and trailing blanks (spaces, tabs, carriage returns).
std::string_view Trim(std::string_view text);

// Finds switches of a description by name or by GUID text ("0x<hex>"); names first.
class SwitchLookup {
public:
    explicit SwitchLookup(const FabricDescription& description);
    // The switch's index, or -1 when no switch has that name or GUID.
    std::ptrdiff_t Find(std::string_view name_or_guid) const;

private:
    std::unordered_map<std::string, size_t> m_by_name;
    std::unordered_map<uint64_t, size_t> m_by_guid;
};

// Reads a list of switches, one name or GUID per line ('#' starts a comment), as
// indices; throws InputError naming `file_name` and the line of an unknown switch.
std::vector<size_t> ParseRootsText(const FabricDescription& description, std::string_view text,
                                   const std::string& file_name);

// Reads a whole file; throws InputError naming it when it cannot be read or passes
// kMaxInputFileBytes, std::bad_alloc when memory runs out.
std::string ReadTextFile(const std::string& path);

// "line N, column M" of a JSON parser's error, from the number of characters it had
// read (the end of the text counting as one), counted the way the parser counts.
// Linear in the text, without regular expressions, so it holds for texts of any length.
std::string JsonErrorLocation(std::string_view text, size_t chars_read);

// Parses JSON text like nlohmann::json::parse (its parse_error passes through), but
// refuses with an InputError naming `file_name` a document nested deeper than
// kMaxJsonDepth, before it is built.
nlohmann::json ParseJsonNestingLimited(std::string_view text, const std::string& file_name);

// Empties a JSON document from its leaves up, so that destroying it allocates nothing:
// the library's destructor gathers every container's children in a work list first,
// which fails, and ends the program, when memory has run out.  Recursion as deep as
// the document.
template <typename Json>
void DismantleJson(Json& value) noexcept {
    if (value.is_array()) {
        auto& array = *value.template get_ptr<typename Json::array_t*>();
        while (!array.empty()) {
            DismantleJson(array.back());
            array.pop_back();
        }
    } else if (value.is_object()) {
        auto& object = *value.template get_ptr<typename Json::object_t*>();
        for (auto& item : object) {
            DismantleJson(item.second);
        }
        object.clear();
    }
}

// Dismantles a JSON document when the scope ends, normally or by an exception; declare
// it after the document.
template <typename Json>
class JsonDismantler {
public:
    explicit JsonDismantler(Json& document) : m_document(document) {}
    ~JsonDismantler() { DismantleJson(m_document); }
    JsonDismantler(const JsonDismantler&) = delete;
    JsonDismantler& operator=(const JsonDismantler&) = delete;

private:
    Json& m_document;
};

// The parser's own words from its error message, without its tag and position and with
// the text it last read cut short, so that one long token makes no long message.
std::string JsonErrorProblem(std::string_view what);

}  // namespace aggtree::internal
