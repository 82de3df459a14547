#include "support/foreign_node.h"

// A bare node whose port carries `name`.
ForeignNode::ForeignNode(const std::string& name) {
    m_port_info.name = name;
    m_node.port_info = &m_port_info;
}

// Adds one path to this node to the upward paths of `from`.
void ForeignNode::LinkUpFrom(AggNodeFabricInfo* from) {
    AggPath path;
    path.remote_node = &m_node;
    from->agg_paths[AGG_PATH_DIRECTION_UP][&m_node].insert(path);
}
