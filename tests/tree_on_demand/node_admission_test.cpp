// Admission of a switch for a job: which tests run, in which order, and what they decide.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <new>
#include <stdexcept>

#include "fabric_model/agg_node.h"
#include "fabric_model/job_resource.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

using ::testing::_;
using ::testing::AllOf;
using ::testing::Field;
using ::testing::InSequence;
using ::testing::Invoke;
using ::testing::NiceMock;
using ::testing::Return;
using ::testing::StrictMock;

// A switch whose admission inputs are observed.  By default every test passes.
class ObservedSwitch : public AggNodeFabricInfo {
public:
    MOCK_METHOD(bool, IsValid, (), (const, override));
    MOCK_METHOD(bool, IsLockAvailable, (), (const, override));
    MOCK_METHOD(bool, IsExclusiveLockAvailable, (), (const, override));
    MOCK_METHOD(bool, HasRequiredCapability, (), (const, override));
    MOCK_METHOD(bool, HasQuota, (const zelta_quota&, uint8_t, AggNodeInfo&), (const, override));

    void PassEverything() {
        ON_CALL(*this, IsValid()).WillByDefault(Return(true));
        ON_CALL(*this, IsLockAvailable()).WillByDefault(Return(true));
        ON_CALL(*this, IsExclusiveLockAvailable()).WillByDefault(Return(true));
        ON_CALL(*this, HasRequiredCapability()).WillByDefault(Return(true));
        ON_CALL(*this, HasQuota(_, _, _)).WillByDefault(Return(true));
    }
};

JobResource LockingJob(bool lock_required, bool exclusive_lock) {
    JobResource job;
    job.flags = lock_required ? kJobFlagLockRequired : 0;
    job.lock_options = exclusive_lock ? kJobLockOptionExclusive : 0;
    return job;
}

class NodeAdmission : public ::testing::Test {
protected:
    OnDemandTreeCreator creator;
};

TEST_F(NodeAdmission, InvalidSwitchIsRefusedWithoutAnyLockOrQuotaCall) {
    StrictMock<ObservedSwitch> sw;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(false));
    // A strict mock fails the test on any other call.
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));
}

TEST_F(NodeAdmission, ExcludedSwitchIsRefusedWithoutAnyLockOrQuotaCall) {
    StrictMock<ObservedSwitch> sw;
    sw.is_excluded = true;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));
}

TEST_F(NodeAdmission, SwitchInModeOneIsRefusedEvenWithQuotaAndFreeLocks) {
    StrictMock<ObservedSwitch> sw;
    sw.mode = 1;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));

    // The same switch in another mode passes: mode 1 alone made the difference.
    sw.mode = 2;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_CALL(sw, IsExclusiveLockAvailable()).WillOnce(Return(true));
    EXPECT_CALL(sw, IsLockAvailable()).WillOnce(Return(true));
    EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));
}

TEST_F(NodeAdmission, RealSwitchInModeOneIsRefusedWithEverythingElseAvailable) {
    AggNodeFabricInfo sw;
    sw.mode = 1;
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, JobResource{}));
    sw.mode = 0;
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, JobResource{}));
}

TEST_F(NodeAdmission, JobWithoutLocksCallsNoLockTest) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    }
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(false, false)));
}

TEST_F(NodeAdmission, ExclusiveLockWithoutLockRequiredCallsNeitherLockTest) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    }
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(false, true)));
}

TEST_F(NodeAdmission, ExclusiveDemandTestsExclusiveLockThenSharedLockThenQuota) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsExclusiveLockAvailable()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsLockAvailable()).WillOnce(Return(true));
        EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    }
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));
}

TEST_F(NodeAdmission, ExclusiveDemandOnSwitchWithFreeExclusiveButTakenSharedLockIsRefused) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsExclusiveLockAvailable()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsLockAvailable()).WillOnce(Return(false));
    }
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));
}

TEST_F(NodeAdmission, ExclusiveDemandOnSwitchWithTakenExclusiveLockStopsBeforeSharedLock) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsExclusiveLockAvailable()).WillOnce(Return(false));
    }
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, true)));
}

TEST_F(NodeAdmission, SharedDemandTestsOnlyTheSharedLock) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsLockAvailable()).WillOnce(Return(true));
        EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    }
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, false)));
}

TEST_F(NodeAdmission, SharedDemandOnSwitchWithTakenLockIsRefusedBeforeTheQuota) {
    StrictMock<ObservedSwitch> sw;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, IsLockAvailable()).WillOnce(Return(false));
    }
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, LockingJob(true, false)));
}

TEST_F(NodeAdmission, LockBitsAreReadFromTheirOwnPositionsOnly) {
    StrictMock<ObservedSwitch> sw;
    JobResource job;
    // Every flag except bit 3, every lock option except bit 1: no lock is asked for.
    job.flags = ~kJobFlagLockRequired;
    job.lock_options = ~kJobLockOptionExclusive;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, QuotaCarriesTheJobsQuantitiesWithPayloadLeftZero) {
    StrictMock<ObservedSwitch> sw;
    JobResource job;
    job.units = 11;
    job.payload = 4096;
    job.buffers = 33;
    job.groups = 44;
    job.queue_pairs = 55;
    job.quota_mode = 7;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_CALL(sw,
                HasQuota(AllOf(Field(&zelta_quota::units, 11u), Field(&zelta_quota::payload, 0u),
                               Field(&zelta_quota::buffers, 33u), Field(&zelta_quota::groups, 44u),
                               Field(&zelta_quota::queue_pairs, 55u)),
                         7, _))
        .WillOnce(Return(true));
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, QuotaTestGetsAnEmptyNodeInfo) {
    StrictMock<ObservedSwitch> sw;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_CALL(sw, HasQuota(_, _, _))
        .WillOnce(Invoke([](const zelta_quota&, uint8_t, AggNodeInfo& info) {
            EXPECT_TRUE(info.plane_to_tree_count.empty());
            EXPECT_TRUE(info.plane_to_lock_count.empty());
            EXPECT_TRUE(info.resource_to_free.empty());
            EXPECT_EQ(info.free_units, 0u);
            EXPECT_EQ(info.free_buffers, 0u);
            EXPECT_EQ(info.free_groups, 0u);
            EXPECT_EQ(info.free_queue_pairs, 0u);
            return true;
        }));
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, JobResource{}));
}

TEST_F(NodeAdmission, SwitchWithoutQuotaIsRefused) {
    StrictMock<ObservedSwitch> sw;
    JobResource job;
    job.requires_node_capability = true;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(false));
    }
    // The capability is not consulted once the quota failed.
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, RealSwitchShortOfAResourceIsRefusedUnlessQuotaModeSkipsTheCheck) {
    AggNodeFabricInfo sw;
    sw.resources.buffers = 4;
    JobResource job;
    job.buffers = 5;
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
    job.quota_mode = kQuotaModeSkipCheck;
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, RequiredCapabilityMissingRefusesASwitchThatHasQuota) {
    StrictMock<ObservedSwitch> sw;
    JobResource job;
    job.requires_node_capability = true;
    {
        InSequence order;
        EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
        EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
        EXPECT_CALL(sw, HasRequiredCapability()).WillOnce(Return(false));
    }
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, RequiredCapabilityPresentAdmitsTheSwitch) {
    StrictMock<ObservedSwitch> sw;
    JobResource job;
    job.requires_node_capability = true;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    EXPECT_CALL(sw, HasRequiredCapability()).WillOnce(Return(true));
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, CapabilityIsNeverReadWhenTheJobDoesNotRequireIt) {
    StrictMock<ObservedSwitch> sw;
    sw.has_required_capability = false;
    EXPECT_CALL(sw, IsValid()).WillOnce(Return(true));
    EXPECT_CALL(sw, HasQuota(_, _, _)).WillOnce(Return(true));
    EXPECT_CALL(sw, HasRequiredCapability()).Times(0);
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, JobResource{}));
}

TEST_F(NodeAdmission, RealSwitchWithoutCapabilityServesJobsThatDoNotNeedIt) {
    AggNodeFabricInfo sw;
    sw.has_required_capability = false;
    JobResource job;
    EXPECT_TRUE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
    job.requires_node_capability = true;
    EXPECT_FALSE(creator.CheckIfAggNodeSatisfyJobRequest(sw, job));
}

TEST_F(NodeAdmission, ExceptionFromTheQuotaTestReachesTheCaller) {
    NiceMock<ObservedSwitch> sw;
    sw.PassEverything();
    EXPECT_CALL(sw, HasQuota(_, _, _))
        .WillOnce(Invoke([](const zelta_quota&, uint8_t, AggNodeInfo& info) -> bool {
            info.resource_to_free[AGG_NODE_RESOURCE_UNITS] = 1;  // owned memory to release
            throw std::bad_alloc();
        }));
    EXPECT_THROW(creator.CheckIfAggNodeSatisfyJobRequest(sw, JobResource{}), std::bad_alloc);
}

}  // namespace
