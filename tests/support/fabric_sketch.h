// Small fabrics for tests, written the way one would draw them:
//
//   FabricSketch sketch;
//   sketch.Switches({"leaf-1", "leaf-2"}, 0).Switch("spine-1", 1)
//         .Link("leaf-1", "spine-1", 2).Link("leaf-2", "spine-1")
//         .Hosts("leaf-1", {"node001", "node002"}).Host("node003", "leaf-2");
//   InstalledFabric fabric(sketch);
//   JobRun run = RunJob(creator, fabric, {"node001", "node003"});
//
// Switch GUIDs are 0x1001, 0x1002, ... and host GUIDs 0x2001, 0x2002, ... in the order
// they are added, so tests can name them.
#pragma once

#include <functional>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/job_sub_tree.h"
#include "tree_on_demand/on_demand_tree_creator.h"

class FabricSketch {
public:
    using SwitchTweak = std::function<void(SwitchDescription&)>;
    using LinkTweak = std::function<void(LinkDescription&)>;

    // A tree switch (topology kind 1) at `rank`.
    FabricSketch& Switch(const std::string& name, int rank, const SwitchTweak& tweak = {});
    // Several tree switches at one rank.
    FabricSketch& Switches(std::initializer_list<std::string> names, int rank);
    // A switch of Dragonfly+ group `group` (topology kind 2) at `rank`.
    FabricSketch& DfpSwitch(const std::string& name, int rank, uint16_t group,
                            const SwitchTweak& tweak = {});
    // `count` parallel links between two switches.
    FabricSketch& Link(const std::string& a, const std::string& b, uint16_t count = 1,
                       const LinkTweak& tweak = {});
    // A host port on `switch_name`.
    FabricSketch& Host(const std::string& name, const std::string& switch_name, uint8_t plane = 0);
    // Several host ports on one switch.
    FabricSketch& Hosts(const std::string& switch_name, std::initializer_list<std::string> names);
    FabricSketch& MaxTreeId(uint16_t max_tree_id);
    FabricSketch& Options(uint16_t max_tree_children, uint8_t max_childless_islands);
    // Tree ids the job (by its text form) already holds.
    FabricSketch& JobTreeIds(const std::string& job, std::vector<uint16_t> tree_ids);

    // The description of a switch added earlier, to change a field.
    SwitchDescription& Sw(const std::string& name);
    FabricDescription& Description() { return m_description; }
    const FabricDescription& Description() const { return m_description; }

private:
    size_t IndexOf(const std::string& name) const;
    FabricDescription m_description;
};

// A fabric installed as g_fabric, with its options as g_option_info, for one scope.
class InstalledFabric {
public:
    explicit InstalledFabric(const FabricDescription& description);
    explicit InstalledFabric(const FabricSketch& sketch) : InstalledFabric(sketch.Description()) {}
    ~InstalledFabric();
    InstalledFabric(const InstalledFabric&) = delete;
    InstalledFabric& operator=(const InstalledFabric&) = delete;

    Fabric& fabric() { return *m_fabric; }
    // The switch of that name; fails the test when there is none.
    AggNodeFabricInfo* Switch(const std::string& name);

private:
    std::unique_ptr<Fabric> m_fabric;
    Fabric* m_previous_fabric;
    OptionInfo m_previous_options;
};

// One tree request and what it produced.  Keeps the ports alive, since the tree's leaf
// nodes point at them.
struct JobRun {
    int status = -1;
    JobSubTreeInfo info;
    JobSubTreeScore score;
    std::unique_ptr<std::vector<PortData>> ports = std::make_unique<std::vector<PortData>>();

    // Names of the tree's switches in the record's order.
    std::vector<std::string> SwitchNames() const;
    // Name of the parent switch of `switch_name` in the tree ("" for the root or none).
    std::string ParentOf(const std::string& switch_name) const;
    // Names of the children of `switch_name`, by child index.
    std::vector<std::string> ChildrenOf(const std::string& switch_name) const;
    // The tree node of `switch_name`, null when it is not in the tree.
    const TreeNode* NodeOf(const std::string& switch_name) const;
};

// Runs CreateTree for the named hosts (each on its own plane) on the installed fabric.
JobRun RunJob(OnDemandTreeCreator& creator, InstalledFabric& fabric,
              const std::vector<std::string>& host_names, const JobResource& resource = {},
              const ZeltaExtJobId& job_id = {});

// Runs CreateTree for raw ports (GUID and plane), known to the fabric or not.
JobRun RunJobOnPorts(OnDemandTreeCreator& creator, const std::vector<PortData>& ports,
                     const JobResource& resource = {}, const ZeltaExtJobId& job_id = {});
