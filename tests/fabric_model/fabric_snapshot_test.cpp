// The snapshot of a live model: the description it was loaded from with the model's
// present free resources, used tree ids, active trees and job tree ids.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "fabric_model/fabric.h"
#include "support/fabric_sketch.h"
#include "topology/fabric_file.h"
#include "topology/generators.h"

namespace {

FabricSketch SmallFabric() {
    FabricSketch sketch;
    sketch.Switches({"leaf-1", "leaf-2"}, 0)
        .Switch("spine-1", 1)
        .Link("leaf-1", "spine-1")
        .Link("leaf-2", "spine-1")
        .Hosts("leaf-1", {"node001"})
        .Hosts("leaf-2", {"node002"});
    return sketch;
}

TEST(FabricSnapshot, UntouchedModelWritesTheFileItWasLoadedFrom) {
    aggtree::FatTreeParams params;
    params.levels = 3;
    params.radix = 4;
    const FabricDescription generated = aggtree::GenerateFatTree(params);
    const std::string file = aggtree::WriteFabricJson(generated);
    const FabricDescription loaded = aggtree::ParseFabricJson(file, "fabric.json");
    Fabric fabric(loaded);
    EXPECT_EQ(aggtree::WriteFabricJson(fabric.Snapshot()), file);
}

TEST(FabricSnapshot, StateOfTheFileIsKeptInTheModelsOwnOrder) {
    FabricSketch sketch = SmallFabric();
    sketch.Sw("leaf-1").used_tree_ids = {9, 3, 3};
    sketch.Sw("leaf-1").active_trees = 4;
    sketch.Sw("spine-1").resources.units = 7;
    sketch.JobTreeIds("zeta_2", {4, 1}).JobTreeIds("alpha_1", {}).MaxTreeId(15);
    Fabric fabric(sketch.Description());
    FabricDescription snapshot = fabric.Snapshot();
    EXPECT_EQ(snapshot.max_tree_id, 15);
    EXPECT_EQ(snapshot.switches[0].used_tree_ids, (std::vector<uint16_t>{3, 9}));
    EXPECT_EQ(snapshot.switches[0].active_trees, 4u);
    EXPECT_EQ(snapshot.switches[2].resources.units, 7u);
    ASSERT_EQ(snapshot.job_tree_ids.size(), 2u);
    EXPECT_EQ(snapshot.job_tree_ids[0].job, "zeta_2");
    EXPECT_EQ(snapshot.job_tree_ids[0].tree_ids, (std::vector<uint16_t>{1, 4}));
    EXPECT_EQ(snapshot.job_tree_ids[1].job, "alpha_1");
    EXPECT_TRUE(snapshot.job_tree_ids[1].tree_ids.empty());
}

TEST(FabricSnapshot, ChangesOfTheModelAppearInTheSnapshot) {
    Fabric fabric(SmallFabric().Description());
    AggNodeFabricInfo& spine = *fabric.FindSwitch("spine-1");
    spine.free_tree_ids.SetBit2False(127);
    spine.free_tree_ids.SetBit2False(2);
    spine.active_trees = 2;
    spine.resources = SwitchResources{1, 2, 3, 4};
    fabric.AddJobTreeId("default_8", 2);
    fabric.AddJobTreeId("default_3", 127);

    FabricDescription snapshot = fabric.Snapshot();
    const SwitchDescription& described = snapshot.switches[2];
    EXPECT_EQ(described.used_tree_ids, (std::vector<uint16_t>{2, 127}));
    EXPECT_EQ(described.active_trees, 2u);
    EXPECT_EQ(described.resources.units, 1u);
    EXPECT_EQ(described.resources.buffers, 2u);
    EXPECT_EQ(described.resources.groups, 3u);
    EXPECT_EQ(described.resources.queue_pairs, 4u);
    EXPECT_TRUE(snapshot.switches[0].used_tree_ids.empty());
    ASSERT_EQ(snapshot.job_tree_ids.size(), 2u);  // jobs recorded since: by job text
    EXPECT_EQ(snapshot.job_tree_ids[0].job, "default_3");
    EXPECT_EQ(snapshot.job_tree_ids[1].job, "default_8");

    // Read back, the snapshot makes the same model.
    Fabric reloaded(snapshot);
    EXPECT_EQ(aggtree::WriteFabricJson(reloaded.Snapshot()), aggtree::WriteFabricJson(snapshot));
    EXPECT_FALSE(reloaded.FindSwitch("spine-1")->free_tree_ids.IsBitSet(2));
}

TEST(FabricJobTreeIds, AddingReportsWhatWasNewAndUndoTakesBackOnlyThat) {
    FabricSketch sketch = SmallFabric();
    sketch.JobTreeIds("default_7", {5}).JobTreeIds("default_9", {});
    Fabric fabric(sketch.Description());
    const std::string before = aggtree::WriteFabricJson(fabric.Snapshot());
    auto ids = [&fabric](uint64_t job) {
        std::set<uint16_t> held;
        fabric.GetJobTreeIds(ZeltaExtJobId{job, 0, ""}, held);
        return held;
    };

    JobTreeIdChange held_already = fabric.AddJobTreeId("default_7", 5);
    EXPECT_FALSE(held_already.tree_id_added);
    EXPECT_FALSE(held_already.entry_created);
    JobTreeIdChange added = fabric.AddJobTreeId("default_7", 1);
    EXPECT_TRUE(added.tree_id_added);
    EXPECT_FALSE(added.entry_created);
    JobTreeIdChange into_empty = fabric.AddJobTreeId("default_9", 0);
    EXPECT_TRUE(into_empty.tree_id_added);
    EXPECT_FALSE(into_empty.entry_created);
    JobTreeIdChange fresh = fabric.AddJobTreeId("default_11", 3);
    EXPECT_TRUE(fresh.tree_id_added);
    EXPECT_TRUE(fresh.entry_created);
    EXPECT_EQ(ids(7), (std::set<uint16_t>{1, 5}));
    EXPECT_EQ(ids(11), (std::set<uint16_t>{3}));

    fabric.UndoJobTreeId("default_11", 3, fresh);
    fabric.UndoJobTreeId("default_9", 0, into_empty);
    fabric.UndoJobTreeId("default_7", 1, added);
    fabric.UndoJobTreeId("default_7", 5, held_already);
    EXPECT_EQ(ids(7), (std::set<uint16_t>{5}));
    EXPECT_EQ(aggtree::WriteFabricJson(fabric.Snapshot()), before);
}

}  // namespace
