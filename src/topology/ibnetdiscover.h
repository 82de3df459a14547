// Import of the text that ibnetdiscover prints (and the shorter net files of fabric
// simulators): switches from Switch records, hosts from Ca ports, links from switch
// port lines; ranks inferred; Dragonfly+ groups from an optional group map.
//
// Names: a switch is named by its node description, a host by the first word of its Ca's
// description (the Ca's second and further cabled ports p as "<name>-p<p>"); without a
// description, by the net file's identifier or else the GUID text; names that would
// repeat fall back to GUID texts.  Net files carry no GUIDs: a node gets the FNV-1a hash
// of its quoted identifier, a Ca port the hash of "<identifier>/<port>".  Each cable
// counts once; parallel cables add up.  Group-map switches become topology kind 3 with
// dfp_group_id = the group; then every switch without a link to another island is
// marked defer_root (docs/dragonfly-plus.md).
// (Details at the top of ibnetdiscover.cpp.)
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fabric_model/fabric_description.h"

namespace aggtree {

// True when the text looks like an ibnetdiscover dump or a net file rather than JSON.
bool LooksLikeIbnetdiscover(std::string_view text);

// Parses a dump; throws InputError naming `file_name` and the line.  `groups_text` (may
// be empty) maps switches to Dragonfly+ groups, one "<name or GUID> <group>" per line;
// `roots_text` (may be empty) names the top switches, one per line.
FabricDescription ParseIbnetdiscover(std::string_view text, const std::string& file_name,
                                     std::string_view groups_text = {},
                                     const std::string& groups_file_name = {},
                                     std::string_view roots_text = {},
                                     const std::string& roots_file_name = {},
                                     std::vector<std::string>* warnings = nullptr);

}  // namespace aggtree
