// The trees that jobs hold: committing a built tree to the model and releasing it.
//
// The builder leaves a job's tree as default tree nodes (tree id 65535) owned by the
// creator, which destroys them at its next request.  Committing copies that tree into
// tree nodes of the ledger's own, under the job's real tree id and with the same edges,
// child indices and host ports, so one creator can go on serving requests while many
// trees stay committed.  A commit takes, on every switch of the tree: the tree id (its
// free-id bit cleared), an entry of the tree node under that id, one active tree, and
// the job's quota from the free resources; and it records the tree id among the job's
// tree ids (Fabric::GetJobTreeIds).  Release gives back exactly what its commit took and
// nothing else, so committing and releasing leave no trace in the model.
//
// Ownership and lifetime: the ledger owns the committed tree nodes; the fabric must
// outlive the ledger.  Destroying the ledger releases every tree it still holds.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fabric_model/agg_node.h"
#include "fabric_model/fabric.h"
#include "fabric_model/identifiers.h"
#include "fabric_model/job_resource.h"
#include "fabric_model/job_sub_tree.h"
#include "fabric_model/tree_node.h"

// Outcome of a commit or a release: 0 on success, else 1 and a text saying why.
struct LedgerStatus {
    int status = 0;
    std::string error_text;  // empty on success

    // True on success.
    bool ok() const { return status == 0; }
};

// A job's tree as the model holds it once committed.
class CommittedTree {
public:
    // The job that holds the tree.
    const ZeltaExtJobId& JobId() const { return m_job_id; }
    // The tree id taken on every switch of the tree.
    uint16_t TreeId() const { return m_tree_id; }
    // The tree's plane, as the builder recorded it.
    uint8_t Plane() const { return m_plane; }
    // The tree nodes in the record's order, registered under TreeId().
    const std::vector<std::unique_ptr<TreeNode>>& Nodes() const { return m_nodes; }
    // The root's switch (the record's root_node).
    AggNodeFabricInfo* Root() const { return m_root; }
    // What was taken from the free resources of the switch of Nodes()[i].
    const SwitchResources& TakenFrom(size_t i) const { return m_taken[i]; }

private:
    friend class TreeLedger;

    ZeltaExtJobId m_job_id;
    uint16_t m_tree_id = kDefaultTreeId;
    uint8_t m_plane = 0;
    AggNodeFabricInfo* m_root = nullptr;
    std::deque<PortData> m_ports;  // the host ports the leaf nodes point at (stable)
    std::vector<std::unique_ptr<TreeNode>> m_nodes;
    std::vector<SwitchResources> m_taken;  // parallel to m_nodes
    JobTreeIdChange m_job_tree_id_change;
};

class TreeLedger {
public:
    // A ledger of the trees committed to `fabric`, which must outlive it.
    explicit TreeLedger(Fabric& fabric);
    // Releases every tree still held.
    ~TreeLedger();
    TreeLedger(const TreeLedger&) = delete;
    TreeLedger& operator=(const TreeLedger&) = delete;

    // Commits the tree the builder put into `tree` (status 0 of CreateTree) for the
    // record's job with the job's quota from `resource`.  Refused, with nothing changed,
    // when the job already holds a committed tree, the record holds no tree or no tree
    // id, or a switch cannot give the tree id or the quota.  With quota mode 1 (no quota
    // comparison) each switch gives what it has, up to the quota.  Throws
    // std::bad_alloc, with nothing changed, when memory runs out.
    LedgerStatus Commit(const JobSubTreeInfo& tree, const JobResource& resource);

    // Releases the job's committed tree, restoring what its commit took; refused when
    // the job holds no committed tree.
    LedgerStatus Release(const ZeltaExtJobId& job_id);

    // The job's committed tree, or null.
    const CommittedTree* Find(const ZeltaExtJobId& job_id) const;

    // Number of committed trees.
    size_t Size() const { return m_trees.size(); }

    // The committed trees by job text ("default_7").
    const std::map<std::string, std::unique_ptr<CommittedTree>>& Trees() const { return m_trees; }

private:
    // Gives back what the tree took; the tree's nodes are destroyed by the caller.
    void Restore(CommittedTree& tree);

    Fabric& m_fabric;
    std::map<std::string, std::unique_ptr<CommittedTree>> m_trees;  // by job text
};
