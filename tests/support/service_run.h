// Requests served one after another by one creator on one installed fabric, as a
// manager serves them, with what each left behind in a form tests can compare.
#pragma once

#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "tree_on_demand/on_demand_tree_creator.h"

// The tree of a record as text: tree id, plane and root, then one line per tree node in
// the record's order with its parent, child index, children and host ports; the
// failure text for a record without a tree.  Equal texts are equal trees.
std::string TreeSignature(const JobSubTreeInfo& info);

// Empty when every tree node the switches of `fabric` hold is one that `creator` made
// for its last request, held by its own switch under its own tree id: none of an
// earlier request is left (a request that failed half-way may not have registered all
// of its own).  Otherwise the first switch that breaks this.
std::string CheckRegisteredTreeNodes(const Fabric& fabric, const OnDemandTreeCreator& creator);

// One request's ports, kept alive with the record that points at them.
struct ServedRequest {
    std::vector<PortData> ports;
    JobSubTreeInfo info;
    JobSubTreeScore score;
    int status = -1;
};

// Serves the request for `ports` on the installed fabric.  `before_create` runs just
// before CreateTree, after every allocation of the test's own (to arm a fault), and
// `after_create` right after it.
template <typename Before = void (*)(), typename After = void (*)()>
void Serve(
    OnDemandTreeCreator& creator, ServedRequest& request, const JobResource& resource,
    const ZeltaExtJobId& job_id, Before before_create = [] {}, After after_create = [] {}) {
    JobPortSet port_set;
    for (const PortData& port : request.ports) {
        port_set.insert(&port);
    }
    before_create();
    request.status = creator.CreateTree(port_set, resource, job_id, request.info, request.score);
    after_create();
}
