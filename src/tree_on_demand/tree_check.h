// The final check of a built tree: what a manager programs into its switches must be a
// proper tree for the job, whatever the stages before it did.  CreateTree runs it on
// every tree before it reports success; tests run it on every tree they get back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/identifiers.h"
#include "fabric_model/job_sub_tree.h"

// One host port of the job and the leaf switch it hangs on.
struct JobLeafPort {
    HcaPortKey port;                       // the port's GUID and plane
    const AggNodeFabricInfo* leaf_switch;  // the switch the fabric attaches it to
};

// Empty when `info` holds a proper tree for the job, otherwise the first broken
// invariant as a sentence.  A proper tree has: a count that matches its list, one tree
// node per switch, exactly one node without a parent and that node on the record's
// root switch, every other node exactly one parent whose child edge at the node's
// child index points back at it (edges paired both ways), no cycle (every node reaches
// the root), children within min(switch limit, `max_tree_children`, 256), every edge
// on a link of the model (an up-link from child to parent inside an island, a link
// between islands otherwise), and every job leaf switch in the tree carrying each of
// its job ports.  Cost: linear in the tree's nodes, edges and ports, plus a look-up of
// each parent among its child's links.
std::string FindBrokenTreeInvariant(const JobSubTreeInfo& info,
                                    const std::vector<JobLeafPort>& job_ports,
                                    uint16_t max_tree_children);
