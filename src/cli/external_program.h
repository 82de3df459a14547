// Running a helper program of the tool (Graphviz dot, gnuplot) with text on its standard
// input.
#pragma once

#include <string>
#include <vector>

namespace aggtree::cli {

// Runs `program`, found on PATH, with `args` (not counting the program's name), writes
// `input` to its standard input and waits for it.  Returns its exit status, or -1 when it
// could not be started (then `error` says why) or was ended by a signal.  A program that
// stops reading early does not end the tool with a broken pipe.
int RunProgramWithInput(const std::string& program, const std::vector<std::string>& args,
                        const std::string& input, std::string& error);

}  // namespace aggtree::cli
