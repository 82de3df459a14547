#include "cli/demo_fabrics.h"

#include <set>

#include "topology/generators.h"

namespace aggtree::cli {

DemoFabric DemoFatTree() {
    FatTreeParams params;
    params.levels = 2;
    params.radix = 8;
    params.hosts_per_leaf = 2;
    params.parallel_links = 2;
    DemoFabric demo;
    demo.title = "Fat tree: 2 levels of radix-8 switches, 2 parallel links per switch pair";
    demo.generate_args =
        "generate fat-tree --levels 2 --radix 8 --hosts-per-leaf 2 "
        "--parallel-links 2";
    demo.description = GenerateFatTree(params);
    return demo;
}

DemoFabric DemoDragonflyPlus() {
    DragonflyPlusParams params;
    params.groups = 3;
    params.leaves_per_group = 2;
    params.spines_per_group = 2;
    params.hosts_per_leaf = 2;
    params.global_links_per_spine = 2;
    params.wiring = "consecutive";
    DemoFabric demo;
    demo.title = "Dragonfly+: 3 groups of 2 leaves and 2 spines, 2 global links per spine";
    demo.generate_args =
        "generate dragonfly-plus --groups 3 --leaves-per-group 2 "
        "--spines-per-group 2 --hosts-per-leaf 2 --global-links-per-spine 2 "
        "--wiring consecutive";
    demo.description = GenerateDragonflyPlus(params);
    return demo;
}

std::vector<std::string> DemoJobHosts(const Fabric& fabric) {
    std::vector<const HostRecord*> first_on_leaf;
    std::set<const AggNodeFabricInfo*> leaves;
    for (const HostRecord& host : fabric.Hosts()) {
        if (leaves.insert(host.attached_switch).second) {
            first_on_leaf.push_back(&host);
        }
    }
    std::vector<std::string> names;
    std::set<size_t> picked;
    if (!first_on_leaf.empty()) {
        for (size_t index : {size_t{0}, first_on_leaf.size() / 2, first_on_leaf.size() - 1}) {
            if (picked.insert(index).second) {
                names.push_back(first_on_leaf[index]->name);
            }
        }
    }
    return names;
}

}  // namespace aggtree::cli
