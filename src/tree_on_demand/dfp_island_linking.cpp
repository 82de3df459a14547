// Dragonfly+ island linking is not built yet: every request that needs it fails loudly.
#include "tree_on_demand/on_demand_tree_creator.h"
#include "tree_on_demand/trees_log.h"

uint32_t OnDemandTreeCreator::DfpLinkIslandGraphs(const DfpIslandMap& /*map_island_info*/,
                                                  const JobResource& /*job_resource*/,
                                                  JobSubTreeInfo& /*job_sub_tree_info*/,
                                                  JobSubTreeScore& /*score*/,
                                                  NodesInTreeSet& /*nodes_in_tree*/) {
    TREES_LOG(kLogLevelError,
              "Dragonfly+ island linking is not built in this version: cannot link islands\n");
    return 1;
}
