// Invariants of a built aggregation tree, checked on every tree a test gets back.
#pragma once

#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "fabric_model/tree_ledger.h"

// Empty when the record holds a proper tree for the job's ports on `fabric`, otherwise
// the text of the first broken invariant.  The tree's structure is what the builder's
// own final check demands (FindBrokenTreeInvariant: one root, one parent per node with
// paired edges, no cycle, limits, edges on links, every job leaf switch with its
// ports); on top of it, what only the fabric's bookkeeping can tell: a tree id free on
// every tree switch and not held by the job (unless it is a SAT id), and no switch that
// serves no job (invalid, excluded, mode 1) or has no tree id free.
std::string CheckTreeInvariants(const JobSubTreeInfo& info, const Fabric& fabric,
                                const std::vector<PortData>& ports, uint16_t max_tree_children);

// Empty when `committed` is `built` (a record that CreateTree filled, still alive) as the
// model holds it after a commit: a proper tree of nodes of its own, node for node the
// built one (switch, plane, counters, parent, child index, paired edges, copies of the
// host ports), each registered on its switch under the tree id, the tree id no longer
// free on any tree switch and among the job's tree ids.  Otherwise the text of the first
// broken invariant.
std::string CheckCommittedTree(const CommittedTree& committed, const JobSubTreeInfo& built,
                               const Fabric& fabric, const std::vector<PortData>& ports,
                               uint16_t max_tree_children);
