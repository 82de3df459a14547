// A node that is no switch of the fabric, for breaking the invariant that every upward
// path of a switch leads to another switch.
#pragma once

#include <string>

#include "fabric_model/agg_node.h"

class ForeignNode {
public:
    explicit ForeignNode(const std::string& name);
    ForeignNode(const ForeignNode&) = delete;
    ForeignNode& operator=(const ForeignNode&) = delete;

    // Gives `from` an upward path to this node.
    void LinkUpFrom(AggNodeFabricInfo* from);

private:
    PortInfo m_port_info;
    AggNode m_node;
};
