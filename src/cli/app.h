// The aggtree command line: parses the arguments, runs one subcommand and turns every
// problem into one "aggtree: ..." line on standard error and exit status 2.
#pragma once

namespace aggtree::cli {

int Run(int argc, char** argv);

}  // namespace aggtree::cli
