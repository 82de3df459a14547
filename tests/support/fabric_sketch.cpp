#include "support/fabric_sketch.h"

#include <gtest/gtest.h>

#include <stdexcept>

FabricSketch& FabricSketch::Switch(const std::string& name, int rank, const SwitchTweak& tweak) {
    SwitchDescription sw;
    sw.guid = 0x1001 + m_description.switches.size();
    sw.name = name;
    sw.rank = rank;
    if (tweak) {
        tweak(sw);
    }
    m_description.switches.push_back(std::move(sw));
    return *this;
}

FabricSketch& FabricSketch::Switches(std::initializer_list<std::string> names, int rank) {
    for (const std::string& name : names) {
        Switch(name, rank);
    }
    return *this;
}

FabricSketch& FabricSketch::DfpSwitch(const std::string& name, int rank, uint16_t group,
                                      const SwitchTweak& tweak) {
    return Switch(name, rank, [&](SwitchDescription& sw) {
        sw.topology_kind = 2;
        sw.dfp_group_id = group;
        if (tweak) {
            tweak(sw);
        }
    });
}

FabricSketch& FabricSketch::Link(const std::string& a, const std::string& b, uint16_t count,
                                 const LinkTweak& tweak) {
    LinkDescription link;
    link.a = IndexOf(a);
    link.b = IndexOf(b);
    link.count = count;
    if (tweak) {
        tweak(link);
    }
    m_description.links.push_back(link);
    return *this;
}

FabricSketch& FabricSketch::Host(const std::string& name, const std::string& switch_name,
                                 uint8_t plane) {
    HostDescription host;
    host.guid = 0x2001 + m_description.hosts.size();
    host.name = name;
    host.plane = plane;
    host.switch_index = IndexOf(switch_name);
    m_description.hosts.push_back(std::move(host));
    return *this;
}

FabricSketch& FabricSketch::Hosts(const std::string& switch_name,
                                  std::initializer_list<std::string> names) {
    for (const std::string& name : names) {
        Host(name, switch_name);
    }
    return *this;
}

FabricSketch& FabricSketch::MaxTreeId(uint16_t max_tree_id) {
    m_description.max_tree_id = max_tree_id;
    return *this;
}

FabricSketch& FabricSketch::Options(uint16_t max_tree_children, uint8_t max_childless_islands) {
    m_description.options.max_tree_children = max_tree_children;
    m_description.options.max_childless_islands = max_childless_islands;
    return *this;
}

FabricSketch& FabricSketch::JobTreeIds(const std::string& job, std::vector<uint16_t> tree_ids) {
    m_description.job_tree_ids.push_back({job, std::move(tree_ids)});
    return *this;
}

SwitchDescription& FabricSketch::Sw(const std::string& name) {
    return m_description.switches[IndexOf(name)];
}

size_t FabricSketch::IndexOf(const std::string& name) const {
    for (size_t i = 0; i < m_description.switches.size(); ++i) {
        if (m_description.switches[i].name == name) {
            return i;
        }
    }
    throw std::invalid_argument("sketch has no switch named '" + name + "'");
}

InstalledFabric::InstalledFabric(const FabricDescription& description)
    : m_fabric(std::make_unique<Fabric>(description)),
      m_previous_fabric(g_fabric),
      m_previous_options(g_option_info) {
    g_fabric = m_fabric.get();
    g_option_info = description.options;
}

InstalledFabric::~InstalledFabric() {
    g_fabric = m_previous_fabric;
    g_option_info = m_previous_options;
}

AggNodeFabricInfo* InstalledFabric::Switch(const std::string& name) {
    AggNodeFabricInfo* sw = m_fabric->FindSwitch(name);
    EXPECT_NE(sw, nullptr) << "no switch named " << name;
    return sw;
}

std::vector<std::string> JobRun::SwitchNames() const {
    std::vector<std::string> names;
    for (const TreeNode* node : info.tree_nodes) {
        names.push_back(node->agg_node->name);
    }
    return names;
}

const TreeNode* JobRun::NodeOf(const std::string& switch_name) const {
    for (const TreeNode* node : info.tree_nodes) {
        if (node->agg_node->name == switch_name) {
            return node;
        }
    }
    return nullptr;
}

std::string JobRun::ParentOf(const std::string& switch_name) const {
    const TreeNode* node = NodeOf(switch_name);
    if (node == nullptr || node->GetParent() == nullptr) {
        return "";
    }
    return node->GetParent()->agg_node->name;
}

std::vector<std::string> JobRun::ChildrenOf(const std::string& switch_name) const {
    std::vector<std::string> names;
    const TreeNode* node = NodeOf(switch_name);
    if (node == nullptr) {
        return names;
    }
    for (uint16_t i = 0; i < node->num_children && i < node->child_edges.size(); ++i) {
        const TreeNode* child = node->child_edges[i].far_end;
        names.push_back(child ? child->agg_node->name : "<null>");
    }
    return names;
}

JobRun RunJobOnPorts(OnDemandTreeCreator& creator, const std::vector<PortData>& ports,
                     const JobResource& resource, const ZeltaExtJobId& job_id) {
    JobRun run;
    *run.ports = ports;
    JobPortSet port_set;
    for (const PortData& port : *run.ports) {
        port_set.insert(&port);
    }
    run.status = creator.CreateTree(port_set, resource, job_id, run.info, run.score);
    return run;
}

JobRun RunJob(OnDemandTreeCreator& creator, InstalledFabric& fabric,
              const std::vector<std::string>& host_names, const JobResource& resource,
              const ZeltaExtJobId& job_id) {
    std::vector<PortData> ports;
    for (const std::string& name : host_names) {
        const HostRecord* host = fabric.fabric().FindHost(name);
        if (host == nullptr) {
            ADD_FAILURE() << "no host named " << name;
            continue;
        }
        ports.push_back(PortData{host->guid, host->plane});
    }
    return RunJobOnPorts(creator, ports, resource, job_id);
}
