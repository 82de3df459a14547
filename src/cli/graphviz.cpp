#include "cli/graphviz.h"

#include <string>

#include "cli/cli_support.h"
#include "cli/external_program.h"
#include "topology/input_error.h"

namespace aggtree::cli {

bool HasGraphvizDot() {
    return IsOnPath("dot");
}

void RenderWithDot(const std::string& dot_text, const std::string& format,
                   const std::string& output_path) {
    if (!HasGraphvizDot()) {
        throw InputError(output_path, "",
                         "cannot render " + format +
                             ": Graphviz 'dot' is not on PATH (install graphviz, or write "
                             "the graph with --dot FILE and render it elsewhere)");
    }
    std::string error;
    int status = RunProgramWithInput("dot", {"-T" + format, "-o", output_path}, dot_text, error);
    if (!error.empty()) {
        throw InputError(output_path, "", "cannot run dot: " + error);
    }
    if (status != 0) {
        throw InputError(
            output_path, "",
            "dot could not render the graph (exit status " + std::to_string(status) + ")");
    }
}

}  // namespace aggtree::cli
