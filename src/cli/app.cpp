#include "cli/app.h"

#include <cstdio>
#include <exception>
#include <new>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/cli_support.h"
#include "cli/commands.h"
#include "cli/memory_reserve.h"
#include "topology/input_error.h"

namespace aggtree::cli {

namespace {

// One line on standard error: control characters of the text (from names in the input)
// are shown as \xNN so the message stays on its line.
void PrintError(const std::string& text) {
    std::string line;
    for (char c : text) {
        auto byte = static_cast<unsigned char>(c);
        if (byte < 0x20 || byte == 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof(escaped), "\\x%02x", byte);
            line += escaped;
        } else {
            line += c;
        }
    }
    std::fflush(stdout);
    std::fprintf(stderr, "%s\n", line.c_str());
}

}  // namespace

int Run(int argc, char** argv) {
    CLI::App app{
        "aggtree: in-network aggregation trees for parallel jobs on quasi fat trees and "
        "Dragonfly+ fabrics",
        "aggtree"};
    app.require_subcommand(1);
    app.fallthrough(false);
    app.footer(
        "Try 'aggtree demo' first; 'aggtree <command> --help' explains each command.\n"
        "Exit status: 0 done (build: tree built), 1 the job cannot be served, 2 bad input "
        "or usage, 3 internal failure (out of memory).");
    int exit_status = kExitBuilt;
    AddBuildCommand(app, exit_status);
    AddGenerateCommand(app, exit_status);
    AddConvertCommand(app, exit_status);
    AddInfoCommand(app, exit_status);
    AddDemoCommand(app, exit_status);
    AddSimulateCommand(app, exit_status);
    AddTraceCommand(app, exit_status);
    auto is_command = [&app](const std::string& name) {
        for (const CLI::App* command : app.get_subcommands({})) {
            if (command->check_name(name)) {
                return true;
            }
        }
        return false;
    };
    if (argc > 1 && argv[1][0] != '-' && !is_command(argv[1])) {
        PrintError(std::string("aggtree: unknown command '") + argv[1] +
                   "' (commands: build, generate, convert, info, demo, simulate, trace; see "
                   "'aggtree --help')");
        return kExitBadInput;
    }
    // Enough for the largest JSON document the loaders can free while unwinding.  Taken
    // once the commands are set up: under a tight address-space limit the reserve takes
    // what there is, and setting up the commands must not be what runs out.
    constexpr size_t kReserveBytes = size_t{16} << 20;
    MemoryReserve reserve(kReserveBytes);
    try {
        app.parse(argc, argv);
        return exit_status;
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);  // --help: the help text on standard output
        }
        PrintError(std::string("aggtree: ") + error.what() + " (see 'aggtree --help')");
    } catch (const InputError& error) {
        PrintError(FormatInputError(error));
    } catch (const UsageError& error) {
        PrintError(std::string("aggtree: ") + error.what());
    } catch (const LoadingOutOfMemory& error) {
        // The file may well be fine: not bad input.
        PrintError("aggtree: " + error.file() + ": " + error.what());
        return kExitInternal;
    } catch (const std::bad_alloc&) {
        PrintError("aggtree: out of memory");
        return kExitInternal;
    } catch (const std::exception& error) {
        PrintError(std::string("aggtree: ") + error.what());
    }
    return kExitBadInput;
}

}  // namespace aggtree::cli
