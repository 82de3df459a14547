// Drawings of a built tree: the Graphviz dot file, and SVG or PNG rendered with dot
// when it is installed (a clear usage error when it is not).
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "aggtree_runner.h"

namespace aggtree_cli_test {
namespace {

bool DotIsInstalled() {
    const char* path = std::getenv("PATH");
    std::istringstream dirs(path ? path : "");
    std::string dir;
    while (std::getline(dirs, dir, ':')) {
        std::filesystem::path candidate = std::filesystem::path(dir.empty() ? "." : dir) / "dot";
        if (access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
    }
    return false;
}

class GraphOutputTest : public CliTest {
protected:
    RunResult Build(const std::vector<std::string>& extra,
                    const std::map<std::string, std::string>& env = {}) {
        std::vector<std::string> args = {"build", "--fabric", Example("fat-tree.json"), "--job",
                                         Example("fat-tree-job.json")};
        args.insert(args.end(), extra.begin(), extra.end());
        return RunAggtree(args, env);
    }
};

TEST_F(GraphOutputTest, DotFileHasTheTreesSwitchesEdgesAndHosts) {
    RunResult run = Build({"--dot", Path("tree.dot")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(ReadFile(Path("tree.dot")),
              "digraph aggtree {\n"
              "  graph [label=\"job default_7, tree 0, root spine-2\", labelloc=t];\n"
              "  node [shape=box, style=rounded];\n"
              "  \"sw 0x1006\" [label=\"spine-2\", penwidth=2];\n"
              "  \"sw 0x1001\" [label=\"leaf-1\"];\n"
              "  \"sw 0x1002\" [label=\"leaf-2\"];\n"
              "  \"sw 0x1004\" [label=\"leaf-4\"];\n"
              "  \"sw 0x1006\" -> \"sw 0x1001\";\n"
              "  \"sw 0x1006\" -> \"sw 0x1002\";\n"
              "  \"sw 0x1006\" -> \"sw 0x1004\";\n"
              "  \"host 0x2001 plane 0\" [shape=ellipse, label=\"node001\"];\n"
              "  \"sw 0x1001\" -> \"host 0x2001 plane 0\";\n"
              "  \"host 0x2002 plane 0\" [shape=ellipse, label=\"node002\"];\n"
              "  \"sw 0x1001\" -> \"host 0x2002 plane 0\";\n"
              "  \"host 0x2004 plane 0\" [shape=ellipse, label=\"node004\"];\n"
              "  \"sw 0x1002\" -> \"host 0x2004 plane 0\";\n"
              "  \"host 0x2007 plane 0\" [shape=ellipse, label=\"node007\"];\n"
              "  \"sw 0x1004\" -> \"host 0x2007 plane 0\";\n"
              "}\n");
    // The result still goes to standard output.
    EXPECT_EQ(Lines(run.out).at(0), "Tree 0 for job default_7 on plane 0, root spine-2");
}

TEST_F(GraphOutputTest, DotFileOfAnImportedDragonflyPlusFabricClustersTheGroups) {
    RunResult run = RunAggtree({"build", "--fabric", Example("two-level.ibnetdiscover"), "--groups",
                                Example("two-level.groups"), "--hosts", "node001,node002", "--dot",
                                Path("tree.dot")});
    ASSERT_EQ(run.exit_code, 0) << run.err << run.out;
    std::string dot = ReadFile(Path("tree.dot"));
    EXPECT_NE(dot.find("  subgraph \"cluster_group_1\" {\n    label=\"group 1\";\n"),
              std::string::npos)
        << dot;
}

TEST_F(GraphOutputTest, SvgIsRenderedWithGraphvizDot) {
    if (!DotIsInstalled()) {
        GTEST_SKIP() << "Graphviz dot is not installed";
    }
    RunResult run = Build({"--svg", Path("tree.svg")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    std::string svg = ReadFile(Path("tree.svg"));
    EXPECT_NE(svg.find("<svg"), std::string::npos);
    EXPECT_NE(svg.find("spine&#45;2"), std::string::npos) << svg.substr(0, 2000);
    EXPECT_NE(svg.find("node007"), std::string::npos);
}

TEST_F(GraphOutputTest, PngIsRenderedWithGraphvizDot) {
    if (!DotIsInstalled()) {
        GTEST_SKIP() << "Graphviz dot is not installed";
    }
    RunResult run = Build({"--png", Path("tree.png")});
    ASSERT_EQ(run.exit_code, 0) << run.err;
    EXPECT_EQ(ReadFile(Path("tree.png")).substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8));
}

TEST_F(GraphOutputTest, SvgWithoutGraphvizIsAUsageErrorAndNothingIsBuilt) {
    std::filesystem::create_directories(m_dir / "empty-bin");
    RunResult run = Build({"--svg", Path("tree.svg"), "--json"}, {{"PATH", Path("empty-bin")}});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err,
              "aggtree: --svg: Graphviz 'dot' is not on PATH (install graphviz, or write the "
              "graph with --dot FILE and render it elsewhere)\n");
    EXPECT_FALSE(std::filesystem::exists(Path("tree.svg")));
}

TEST_F(GraphOutputTest, NoGraphIsWrittenWhenTheJobCannotBeServed) {
    std::string job =
        WriteFile("big-job.json",
                  R"({"hosts": ["node001", "node008"], "resource": {"quota": {"units": 65}}})");
    RunResult run = RunAggtree(
        {"build", "--fabric", Example("fat-tree.json"), "--job", job, "--dot", Path("tree.dot")});
    EXPECT_EQ(run.exit_code, 1);
    EXPECT_FALSE(std::filesystem::exists(Path("tree.dot")));
    EXPECT_NE(run.err.find("aggtree: no tree was built: graph files not written\n"),
              std::string::npos)
        << run.err;
}

TEST_F(GraphOutputTest, ADotFileThatCannotBeWrittenExitsTwo) {
    RunResult run = Build({"--dot", Path("missing-dir/tree.dot")});
    EXPECT_EQ(run.exit_code, 2);
    EXPECT_EQ(run.err, "aggtree: " + Path("missing-dir/tree.dot") +
                           ": cannot write the file: No such file or directory\n");
}

}  // namespace
}  // namespace aggtree_cli_test
