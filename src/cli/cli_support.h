// What every subcommand of the aggtree tool shares: exit statuses, the error that
// stands for a usage problem, file input and output, and loading a fabric input.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <CLI/CLI.hpp>

#include "fabric_model/fabric.h"
#include "fabric_model/fabric_description.h"
#include "topology/input_error.h"

namespace aggtree::cli {

// Exit statuses of the tool.
inline constexpr int kExitBuilt = 0;      // done (for build: the tree was built)
inline constexpr int kExitNotServed = 1;  // the builder returned a non-zero status
inline constexpr int kExitBadInput = 2;   // bad input or usage; nothing was built
inline constexpr int kExitInternal = 3;   // out of memory, or a tree that failed the final check

// A problem with the command line itself; `what` names the option and the problem.
class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// "aggtree: <file>: <where>: <problem>" (without a line end; `where` left out when empty).
std::string FormatInputError(const InputError& error);

// Throws InputError when `path` names a directory.
void RequireNotADirectory(const std::string& path);

// The whole content of a file; InputError naming the file when it cannot be read.
std::string ReadTextFile(const std::string& path);

// Writes `text` to `path`, or to standard output when `path` is empty or "-";
// InputError naming the file when it cannot be written.
void WriteOutput(const std::string& path, const std::string& text);

// Where a fabric comes from: a fabric file or an ibnetdiscover dump, with the group map
// and the roots list an import may use.
struct FabricSource {
    std::string path;
    std::string groups_file;
    std::string roots_file;
};

// Adds --groups and --roots, the options of an ibnetdiscover input, to `command`.
void AddIbnetdiscoverOptions(CLI::App* command, FabricSource& source);

// Loads the fabric description; every problem becomes an InputError naming a file.
// Warnings of the loader are appended to `warnings`.
FabricDescription LoadFabricDescription(const FabricSource& source,
                                        std::vector<std::string>& warnings);

// Builds the fabric model; a description the model cannot hold becomes an InputError
// naming `path`.
std::unique_ptr<Fabric> MakeFabric(const FabricDescription& description, const std::string& path);

// Makes a fabric the builder's fabric (g_fabric, with its options in g_option_info) for
// the lifetime of the object, restoring what was there before.
class InstalledFabricScope {
public:
    explicit InstalledFabricScope(Fabric& fabric);
    ~InstalledFabricScope();
    InstalledFabricScope(const InstalledFabricScope&) = delete;
    InstalledFabricScope& operator=(const InstalledFabricScope&) = delete;

private:
    Fabric* m_previous_fabric;
    OptionInfo m_previous_options;
};

// Names of the fabric's host ports for people.
class HostNames {
public:
    explicit HostNames(const Fabric& fabric);
    // The host's name, else the port's GUID text.
    std::string Name(uint64_t guid, uint8_t plane) const;

private:
    std::unordered_map<HcaPortKey, std::string, HcaPortKeyHash> m_names;
};

// True when `program` is an executable file in a directory of PATH.
bool IsOnPath(const std::string& program);

}  // namespace aggtree::cli
