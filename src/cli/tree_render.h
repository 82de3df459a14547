// The build result for people (an indented text tree), for programs (the JSON result
// object) and for Graphviz (a dot graph).
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "fabric_model/tree_node.h"

namespace aggtree::cli {

// The result object of `build --json`: status, job, tree ids, plane, root, error text,
// the tree nodes in the record's order and the score.
nlohmann::ordered_json ResultToJson(int status, const ZeltaExtJobId& job_id,
                                    const JobSubTreeInfo& info, const JobSubTreeScore& score);

// The tree drawn with one line per switch (children indented under their parent, with
// children counts and the host names of each leaf), then the tree id, root and score;
// on failure the builder's error text.
std::string RenderTextResult(int status, const ZeltaExtJobId& job_id, const JobSubTreeInfo& info,
                             const JobSubTreeScore& score, const Fabric& fabric);

// Just the indented tree lines, root first.
std::string RenderTextTree(const JobSubTreeInfo& info, const Fabric& fabric);

// A Graphviz digraph of the tree: switches as boxes (Dragonfly+ groups as clusters),
// host ports as ellipses, edges from parent to child.
std::string RenderDot(const ZeltaExtJobId& job_id, const JobSubTreeInfo& info,
                      const Fabric& fabric);

// The switch name of a tree node ("?" when it has none).
std::string SwitchName(const TreeNode* node);

// The tree nodes from the root down, children by child index (the record's nodes that
// the walk does not reach come last, in record order).
std::vector<const TreeNode*> TreeNodesFromRoot(const JobSubTreeInfo& info);

}  // namespace aggtree::cli
