// The largest inputs aggtree accepts, and their checks.
//
// Real fabrics have a handful of levels, a few hundred Dragonfly+ groups at most, tens of
// thousands of switches and hosts, and switches of at most 256 ports.  The limits stand
// well above that (a 524,288-host 3-level fat tree of radix-128 switches fits), so that
// only a file written wrong passes one: a script that chains switches into thousands of
// levels, or hangs every leaf on one spine.  Within the limits every stage of loading and
// building stays fast; an input beyond one is refused with a message naming the limit,
// before anything is built.
#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string>

#include "fabric_model/fabric_description.h"

namespace aggtree {

// Bytes of any one input file (fabric file, dump, job file, group map, list).
inline constexpr uint64_t kMaxInputFileBytes = uint64_t{512} << 20;
// Switches of a fabric.
inline constexpr size_t kMaxSwitches = 262144;
// Host ports of a fabric, and ports of a job.
inline constexpr size_t kMaxHostPorts = 1048576;
// Cables between switches, parallel cables counted one by one.
inline constexpr size_t kMaxCables = 4194304;
// Ports of one switch: its cables to other switches and its host ports.
inline constexpr size_t kMaxPortsPerSwitch = 4096;
// Levels of a fabric: distinct switch ranks.
inline constexpr size_t kMaxLevels = 64;
// Dragonfly+ groups (islands) of a fabric.
inline constexpr size_t kMaxIslands = 2048;
// Nesting of a JSON input (a fabric file nests 4 deep).
inline constexpr int kMaxJsonDepth = 32;
// Bytes of a switch or host name.
inline constexpr size_t kMaxNameBytes = 1024;

// Throws InputError naming `file_name` and the offending switch when the description
// passes a limit above (loaders check what they read this way).  Linear in the
// description; switches must have their ranks.
void CheckFabricLimits(const FabricDescription& description, const std::string& file_name);

// Reads everything `in` holds.  Throws InputError naming `file_name` when that is more
// than kMaxInputFileBytes; when memory runs out, std::bad_alloc, never a shortened text.
std::string ReadLimitedStream(std::istream& in, const std::string& file_name);

}  // namespace aggtree
