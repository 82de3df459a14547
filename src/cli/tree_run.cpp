#include "cli/tree_run.h"

namespace aggtree::cli {

void RunTreeBuilder(TreeRun& run) {
    run.ports.clear();
    for (const PortData& port : run.job.ports) {
        run.ports.insert(&port);
    }
    run.status =
        run.creator.CreateTree(run.ports, run.job.resource, run.job.job_id, run.info, run.score);
}

}  // namespace aggtree::cli
