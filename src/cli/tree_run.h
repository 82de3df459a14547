// One run of the tree builder on a loaded fabric, keeping everything the result
// refers to (the job's ports, the builder's tree nodes) alive for rendering.
#pragma once

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "topology/job_file.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace aggtree::cli {

struct TreeRun {
    JobDescription job;
    JobPortSet ports;
    OnDemandTreeCreator creator;
    JobSubTreeInfo info;
    JobSubTreeScore score;
    int status = -1;
};

// Builds the tree of `run.job` on the installed fabric (g_fabric), which must stay
// installed for as long as the result is used.
void RunTreeBuilder(TreeRun& run);

}  // namespace aggtree::cli
