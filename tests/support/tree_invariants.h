// Invariants of a built aggregation tree, checked on every tree a test gets back.
#pragma once

#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"

// Empty when the record holds a proper tree for the job's ports on `fabric`: one root
// without a parent, every other node exactly one parent that lists it among its child
// edges, connected and acyclic, one node per switch, every job leaf switch in the tree
// with all its host ports, every children limit kept, and a tree id that is free on
// every tree switch and not held by the job (unless it is a SAT id).  Otherwise the
// text of the first broken invariant.
std::string CheckTreeInvariants(const JobSubTreeInfo& info, const Fabric& fabric,
                                const std::vector<PortData>& ports, uint16_t max_tree_children);
