// The fabric file (JSON): reading with defaults, rank inference and strict checking,
// and writing it back.  Also the entry that loads any supported fabric input.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fabric_model/fabric_description.h"
#include "topology/input_error.h"

namespace aggtree {

// Reads a fabric file's text; throws InputError naming `file_name` and the JSON path
// (or line and column for malformed JSON).  Warnings (e.g. linked host switches when
// ranks are inferred) are appended to `warnings` when it is not null, without the file
// name (the caller knows it).
FabricDescription ParseFabricJson(std::string_view text, const std::string& file_name,
                                  std::vector<std::string>* warnings = nullptr);

// The fabric file text of a description (the inverse of ParseFabricJson).
std::string WriteFabricJson(const FabricDescription& description);

// Fills in the rank of every switch that has none: in an island with roots (in
// `description.roots`), down from them; in any other island, up from the switches with
// hosts.  Throws InputError naming a switch that
// cannot be ranked.
void InferRanks(FabricDescription& description, const std::string& file_name,
                std::vector<std::string>* warnings = nullptr);

// Options for inputs that do not carry everything themselves (ibnetdiscover dumps).
struct FabricLoadOptions {
    std::string groups_file;  // lines "<switch name or GUID> <group id>"
    std::string roots_file;   // one switch name or GUID per line
};

// Loads a fabric file or an ibnetdiscover dump (recognised by content).
FabricDescription LoadFabric(const std::string& path, const FabricLoadOptions& options = {},
                             std::vector<std::string>* warnings = nullptr);

}  // namespace aggtree
