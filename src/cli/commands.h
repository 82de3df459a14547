// The subcommands of the aggtree tool.  Each Add*Command registers one subcommand on
// the application; when it runs, its exit status is stored in `exit_status`.  Problems
// leave the command as exceptions (UsageError, InputError) for Run to report.
#pragma once

#include <CLI/CLI.hpp>

namespace aggtree::cli {

void AddBuildCommand(CLI::App& app, int& exit_status);
void AddGenerateCommand(CLI::App& app, int& exit_status);
void AddConvertCommand(CLI::App& app, int& exit_status);
void AddInfoCommand(CLI::App& app, int& exit_status);
void AddDemoCommand(CLI::App& app, int& exit_status);
void AddSimulateCommand(CLI::App& app, int& exit_status);
void AddTraceCommand(CLI::App& app, int& exit_status);

}  // namespace aggtree::cli
