// Random Dragonfly+ fabrics for property tests (RapidCheck generators): groups of two
// levels (leaves under spines) or three (leaves under middle switches under spines),
// marked as docs/dragonfly-plus.md recommends (kind 3 throughout, leaves and middle
// switches defer the root), with global links between groups.
#pragma once

#include <string>
#include <vector>

#include "support/fabric_sketch.h"

enum class DfpWiring {
    kRandom,    // every group joined to an earlier one, every gateway linked, a few more
    kComplete,  // inside a group all lower to all upper switches; all spines to all spines
};

enum class DfpLevels {
    kTwo,                   // leaves and spines; global links on spines
    kThreeGlobalOnSpines,   // leaves, middle switches, spines; global links on spines
    kThreeGlobalOnMiddles,  // as above, and middle switches carry global links too
};

struct RandomDfp {
    FabricSketch sketch;
    std::vector<std::vector<std::string>> spines;    // by group index (group id - 1)
    std::vector<std::vector<std::string>> gateways;  // switches that may carry global links
    std::vector<std::string> hosts;                  // "h-<leaf>", one per leaf
};

// A fabric of 2 to `max_groups` groups with max_childless_islands from 0 to 3.
RandomDfp GenerateRandomDfp(DfpWiring wiring, DfpLevels levels, int max_groups = 16);

// A non-empty random subset of the fabric's hosts.
std::vector<std::string> PickRandomJob(const RandomDfp& random);

// The fabric's option, links and the job in a few lines, for a failing property.
std::string DescribeRandomDfp(const RandomDfp& random, const std::vector<std::string>& job);
