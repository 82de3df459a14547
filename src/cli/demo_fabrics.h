// The demo's fabrics: a small fat tree and a small Dragonfly+ fabric, made by the
// generators, and a job on each that spreads over several leaves (and groups).
#pragma once

#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/fabric_description.h"

namespace aggtree::cli {

struct DemoFabric {
    std::string title;          // what the fabric is, for the heading
    std::string generate_args;  // the generate command that makes the same fabric
    FabricDescription description;
};

DemoFabric DemoFatTree();
DemoFabric DemoDragonflyPlus();

// Names of the demo job's hosts on a demo fabric: the first host of the first leaf, of
// a leaf in the middle and of the last leaf (leaves in the order their hosts appear).
std::vector<std::string> DemoJobHosts(const Fabric& fabric);

}  // namespace aggtree::cli
