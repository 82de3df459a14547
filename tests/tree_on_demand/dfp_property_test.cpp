// Properties of whole requests on random Dragonfly+ fabrics: a tree that is returned is
// a proper tree for the job (the final check's invariants, every edge on a real link:
// an up-link inside a group, a global link between groups), a request never fails as
// an internal error, a refused job says why (a text for its owner and a warning or
// error in the log), and a job whose groups' spines are all linked to one another is
// always served.  Groups have two levels (leaves, spines) or three (leaves, middle
// switches, spines), with global links on spines only or on middle switches too.
#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <string>
#include <vector>

#include "support/fabric_sketch.h"
#include "support/log_capture.h"
#include "support/random_dfp.h"
#include "support/tree_invariants.h"
#include "tree_on_demand/on_demand_tree_creator.h"

namespace {

// A request on a random fabric: a returned tree is proper, no request breaks down, and
// a refused job says why.
void CheckRandomRequest(DfpLevels levels) {
    RandomDfp random = GenerateRandomDfp(DfpWiring::kRandom, levels);
    const std::vector<std::string> job = PickRandomJob(random);
    RC_LOG() << DescribeRandomDfp(random, job);
    InstalledFabric fabric(random.sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelDebug);
    JobRun run = RunJob(creator, fabric, job);
    RC_LOG() << log.Dump();
    RC_CLASSIFY(run.status == 0, "served");
    RC_ASSERT(creator.LastInternalFailure().kind == InternalFailure::kNone);
    if (run.status == 0) {
        const std::string broken = CheckTreeInvariants(run.info, fabric.fabric(), *run.ports, 64);
        RC_ASSERT(broken == "");
    } else {
        RC_ASSERT(!run.info.error_text.empty());
        std::vector<std::string> reasons = log.Messages(kLogLevelWarning);
        RC_TAG(reasons.empty() ? std::string("no warning") : reasons.front());
        RC_ASSERT(log.Messages(kLogLevelError).size() + log.Messages(kLogLevelWarning).size() > 0u);
    }
}

// A job whose groups' spines are all linked to one another is served with a proper tree.
void CheckCompleteRequest(DfpLevels levels) {
    RandomDfp random = GenerateRandomDfp(DfpWiring::kComplete, levels);
    const std::vector<std::string> job = PickRandomJob(random);
    RC_LOG() << DescribeRandomDfp(random, job);
    InstalledFabric fabric(random.sketch);
    OnDemandTreeCreator creator;
    LogCapture log(kLogLevelError);
    JobRun run = RunJob(creator, fabric, job);
    RC_ASSERT(run.status == 0);
    const std::string broken = CheckTreeInvariants(run.info, fabric.fabric(), *run.ports, 64);
    RC_ASSERT(broken == "");
}

RC_GTEST_PROP(DfpProperty, ReturnedTreesAreProperAndFollowRealLinks, ()) {
    CheckRandomRequest(DfpLevels::kTwo);
}

RC_GTEST_PROP(DfpProperty, ThreeLevelGroupsWithGlobalLinksOnSpinesGiveProperTrees, ()) {
    CheckRandomRequest(DfpLevels::kThreeGlobalOnSpines);
}

// A middle switch with global links may relay between two other groups while it also
// lies inside its own group's subtree; it must still get one parent only.
RC_GTEST_PROP(DfpProperty, GlobalLinksOnMiddleSwitchesGiveProperTrees, ()) {
    CheckRandomRequest(DfpLevels::kThreeGlobalOnMiddles);
}

RC_GTEST_PROP(DfpProperty, GroupsWhoseSpinesAreAllLinkedAreAlwaysServed, ()) {
    CheckCompleteRequest(DfpLevels::kTwo);
}

RC_GTEST_PROP(DfpProperty, ThreeLevelGroupsWhoseSpinesAreAllLinkedAreAlwaysServed, ()) {
    CheckCompleteRequest(DfpLevels::kThreeGlobalOnSpines);
}

}  // namespace
