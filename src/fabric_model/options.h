// The manager's option block, as far as the tree builder reads it.
#pragma once

#include <cstdint>

struct OptionInfo {
    uint16_t max_tree_children = 64;    // limit on the children of any tree node
    uint8_t max_childless_islands = 1;  // transit islands allowed on a Dragonfly+ path
    bool dfp_fallback_search = true;    // search further when the Dragonfly+ path search fails
};

extern OptionInfo g_option_info;
