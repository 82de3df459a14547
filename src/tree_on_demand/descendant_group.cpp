// Descendant groups: construction with a wrapping 16-bit id, leaf coverage by a
// breadth-first walk over member groups (O(groups + switches)), the order-dependent
// leaf-set hash (O(leaves)), the candidate order and the text form.
#include "tree_on_demand/descendant_group.h"

#include <queue>
#include <sstream>

uint16_t DescendantGroup::s_id = 0;

DescendantGroup::DescendantGroup(AggNodeFabricInfo* root) : id(s_id++), node(root) {}

void DescendantGroup::UpdateLeafCoverage() {
    std::queue<const DescendantGroup*> pending;
    std::unordered_set<const AggNodeFabricInfo*, AggNodeHash> counted;
    pending.push(this);
    while (!pending.empty()) {
        const DescendantGroup* group = pending.front();
        pending.pop();
        if (counted.count(group->node) == 0) {
            counted.insert(group->node);
        }
        for (const DescendantGroup* child : group->children) {
            if (counted.count(child->node) == 0) {
                pending.push(child);
            }
        }
    }
    score.node_count = static_cast<uint32_t>(counted.size());
    score.leaf_count = static_cast<uint32_t>(leaf_nodes.size());
}

std::string DescendantGroup::ToString(int indent) const {
    std::ostringstream text;
    text << "DG_id: " << id << " node: " << (node ? node->name : std::string("null"));
    if (!children.empty()) {
        text << " children:";
        for (const DescendantGroup* child : children) {
            text << "\n"
                 << std::string(static_cast<size_t>(indent + 1), '-')
                 << child->ToString(indent + 1);
        }
    }
    return text.str();
}

unsigned long LeafNodeGuidKey(AggNodeFabricInfo* const& node) {
    return static_cast<unsigned long>(node->port_info->guid);
}

uint64_t CalculateLeavesHash(const LeafSwitchSet& leaf_nodes, const LeafKeyFunction& key) {
    if (leaf_nodes.empty()) {
        return 0;
    }
    uint64_t h = 1;
    for (AggNodeFabricInfo* const& leaf : leaf_nodes) {
        uint64_t k = key(leaf);
        uint64_t m = h * k;
        h = h + ((m * m) << 32) + ((h ^ k) + (h >> 2)) + ((k >> 5) + (k << 8)) +
            ((m >> 32) + (m << 48));
    }
    return h;
}

bool DescendantGroupHasMoreLeaves(const DescendantGroup* a, const DescendantGroup* b) {
    return a->leaf_nodes.size() > b->leaf_nodes.size();
}

QuasiFatTreeAnInfo::QuasiFatTreeAnInfo(AggNodeFabricInfo* switch_node) : node(switch_node) {
    child_groups.max_load_factor(1.0f);
    map_valid_path_count_to_child.max_load_factor(1.0f);
}
