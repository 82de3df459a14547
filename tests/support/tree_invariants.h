// Invariants of a built aggregation tree, checked on every tree a test gets back.
#pragma once

#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"

// Empty when the record holds a proper tree for the job's ports on `fabric`, otherwise
// the text of the first broken invariant.  The tree's structure is what the builder's
// own final check demands (FindBrokenTreeInvariant: one root, one parent per node with
// paired edges, no cycle, limits, edges on links, every job leaf switch with its
// ports); on top of it, what only the fabric's bookkeeping can tell: a tree id free on
// every tree switch and not held by the job (unless it is a SAT id), and no switch that
// serves no job (invalid, excluded, mode 1) or has no tree id free.
std::string CheckTreeInvariants(const JobSubTreeInfo& info, const Fabric& fabric,
                                const std::vector<PortData>& ports, uint16_t max_tree_children);
