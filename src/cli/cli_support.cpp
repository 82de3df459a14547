#include "cli/cli_support.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>

#include "topology/fabric_file.h"
#include "topology/input_limits.h"

namespace aggtree::cli {

std::string FormatInputError(const InputError& error) {
    std::string text = "aggtree: " + error.file() + ": ";
    if (!error.where().empty()) {
        text += error.where() + ": ";
    }
    text += error.problem();
    return text;
}

void RequireNotADirectory(const std::string& path) {
    std::error_code ignored;
    if (std::filesystem::is_directory(path, ignored)) {
        throw InputError(path, "", "is a directory, not a file");
    }
}

std::string ReadTextFile(const std::string& path) {
    return NameFileOnOutOfMemory(path, [&] {
        RequireNotADirectory(path);
        std::ifstream in(path, std::ios::binary);
        if (!in) {
            throw InputError(path, "",
                             std::string("cannot open the file: ") + std::strerror(errno));
        }
        return ReadLimitedStream(in, path);
    });
}

void WriteOutput(const std::string& path, const std::string& text) {
    if (path.empty() || path == "-") {
        std::fwrite(text.data(), 1, text.size(), stdout);
        std::fflush(stdout);
        return;
    }
    std::FILE* out = std::fopen(path.c_str(), "wb");
    if (out == nullptr) {
        throw InputError(path, "", std::string("cannot write the file: ") + std::strerror(errno));
    }
    bool written = std::fwrite(text.data(), 1, text.size(), out) == text.size();
    if (std::fclose(out) != 0 || !written) {
        throw InputError(path, "", "cannot write the file");
    }
}

FabricDescription LoadFabricDescription(const FabricSource& source,
                                        std::vector<std::string>& warnings) {
    return NameFileOnOutOfMemory(source.path, [&] {
        RequireNotADirectory(source.path);
        FabricLoadOptions options;
        options.groups_file = source.groups_file;
        options.roots_file = source.roots_file;
        try {
            return LoadFabric(source.path, options, &warnings);
        } catch (const InputError&) {
            throw;
        } catch (const std::bad_alloc&) {
            throw;  // not bad input
        } catch (const std::exception& error) {
            throw InputError(source.path, "", error.what());
        }
    });
}

std::unique_ptr<Fabric> MakeFabric(const FabricDescription& description, const std::string& path) {
    return NameFileOnOutOfMemory(path, [&] {
        try {
            return std::make_unique<Fabric>(description);
        } catch (const std::bad_alloc&) {
            throw;  // not bad input
        } catch (const std::exception& error) {
            throw InputError(path, "", error.what());
        }
    });
}

InstalledFabricScope::InstalledFabricScope(Fabric& fabric)
    : m_previous_fabric(g_fabric), m_previous_options(g_option_info) {
    g_fabric = &fabric;
    g_option_info = fabric.Options();
}

InstalledFabricScope::~InstalledFabricScope() {
    g_fabric = m_previous_fabric;
    g_option_info = m_previous_options;
}

HostNames::HostNames(const Fabric& fabric) {
    for (const HostRecord& host : fabric.Hosts()) {
        m_names.emplace(HcaPortKey{host.guid, host.plane}, host.name);
    }
}

std::string HostNames::Name(uint64_t guid, uint8_t plane) const {
    auto found = m_names.find(HcaPortKey{guid, plane});
    return found != m_names.end() ? found->second : GuidToString(guid);
}

bool IsOnPath(const std::string& program) {
    const char* path = std::getenv("PATH");
    if (path == nullptr) {
        return false;
    }
    std::string dirs(path);
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) {
            end = dirs.size();
        }
        std::string dir = dirs.substr(start, end - start);
        std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + program;
        if (::access(candidate.c_str(), X_OK) == 0) {
            return true;
        }
        start = end + 1;
    }
    return false;
}

void AddIbnetdiscoverOptions(CLI::App* command, FabricSource& source) {
    command
        ->add_option("--groups", source.groups_file,
                     "ibnetdiscover input: Dragonfly+ group map, '<switch> <group>' per line")
        ->type_name("FILE");
    command
        ->add_option("--roots", source.roots_file,
                     "ibnetdiscover input: top switches, one name or GUID per line")
        ->type_name("FILE");
}

}  // namespace aggtree::cli
