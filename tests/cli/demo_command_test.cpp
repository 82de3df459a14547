// aggtree demo: no files needed; a tree on a small fat tree and on a small Dragonfly+
// fabric, and a closing line on doing the same with one's own fabric.
#include <gtest/gtest.h>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

class DemoCommandTest : public CliTest {};

// The demo's fat tree has 4 leaves of 2 hosts (node001 .. node008) under 2 spines,
// every leaf linked to every spine by 2 cables.  The job takes the first host of the
// first, a middle and the last leaf; both spines score alike, so the first one visited
// (spine-1) is the root, linking the leaves in fabric order.
const char* const kFatTreePart =
    "== Fat tree: 2 levels of radix-8 switches, 2 parallel links per switch pair ==\n"
    "   6 switches, 8 hosts; the same fabric: aggtree generate fat-tree --levels 2 --radix 8 "
    "--hosts-per-leaf 2 --parallel-links 2\n"
    "   job demo_1 on hosts node001,node005,node007\n"
    "\n"
    "Tree 0 for job demo_1 on plane 0, root spine-1\n"
    "\n"
    "spine-1  (3 children)\n"
    "├── leaf-1  hosts: node001\n"
    "├── leaf-3  hosts: node005\n"
    "└── leaf-4  hosts: node007\n"
    "\n"
    "Score: 4 switches, 3 leaf switches, busiest switch carries 0 trees, 0 active trees in "
    "all, weakest hop 2 parallel links, fewest free tree ids 128\n";

TEST_F(DemoCommandTest, BuildsBothTreesAndExitsZero) {
    RunResult run = RunAggtree({"demo"});
    ASSERT_EQ(run.exit_code, 0) << run.out << run.err;
    EXPECT_EQ(run.err, "");
    EXPECT_NE(run.out.find(kFatTreePart), std::string::npos) << run.out;

    size_t dfp = run.out.find("== Dragonfly+: 3 groups of 2 leaves and 2 spines");
    ASSERT_NE(dfp, std::string::npos) << run.out;
    std::string dfp_part = run.out.substr(dfp);
    EXPECT_NE(dfp_part.find("   job demo_2 on hosts node001,node007,node011\n"), std::string::npos)
        << dfp_part;
    EXPECT_NE(dfp_part.find("\nTree 0 for job demo_2 on plane 0, root g"), std::string::npos)
        << dfp_part;
    // Every host of the job hangs on a leaf of its own group.
    EXPECT_NE(dfp_part.find("g1-leaf-1 [group 1]  hosts: node001\n"), std::string::npos)
        << dfp_part;
    EXPECT_NE(dfp_part.find("g2-leaf-2 [group 2]  hosts: node007\n"), std::string::npos)
        << dfp_part;
    EXPECT_NE(dfp_part.find("g3-leaf-2 [group 3]  hosts: node011\n"), std::string::npos)
        << dfp_part;
}

TEST_F(DemoCommandTest, EndsByTellingHowToDoTheSameOnOnesOwnFabric) {
    RunResult run = RunAggtree({"demo"});
    std::vector<std::string> lines = Lines(run.out);
    ASSERT_FALSE(lines.empty());
    const std::string& last = lines.back();
    EXPECT_NE(last.find("aggtree generate fat-tree"), std::string::npos) << last;
    EXPECT_NE(last.find("aggtree convert"), std::string::npos) << last;
    EXPECT_NE(last.find("aggtree build --fabric"), std::string::npos) << last;
}

}  // namespace
}  // namespace aggtree_cli_test
