// What each fuzz target does with the fuzzer's bytes, shared by the libFuzzer targets
// and by the test that replays the corpus in `make test`.
//
// Each entry feeds the bytes to one reader (or builds a fabric and a job from them and
// runs the builder) and checks what came back.  Refusing bad input is expected; a crash,
// a hang, an exception other than the reader's InputError, or a broken check is a bug.
// An entry returns the broken check's text ("" when all held); the fuzz targets abort on
// it so that libFuzzer keeps the input.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace aggtree::fuzz {

// The fabric file reader.  A file it accepts makes a fabric model, and writing it back
// and reading that again gives the same description.
std::string FuzzFabricFile(const uint8_t* data, size_t size);

// The job file reader, against a small fixed fat tree.  A job it accepts is built, and a
// tree built keeps every invariant.
std::string FuzzJobFile(const uint8_t* data, size_t size);

// The ibnetdiscover import.  The bytes are the dump, optionally followed by a NUL and a
// group map, and another NUL and a roots list.  An import it accepts makes a fabric
// model and reads back the same from its fabric file.
std::string FuzzIbnetdiscover(const uint8_t* data, size_t size);

// The builder.  The bytes describe a fabric of up to 24 switches (ranks, Dragonfly+
// groups, switch and link states, children limits, used tree ids) and a job on it (hosts,
// unknown ports, locks, quotas); CreateTree runs twice on one creator.  A tree built
// keeps every invariant, the switches hold the last request's tree nodes only, and the
// second run gives the same result as the first.
std::string FuzzCreateTree(const uint8_t* data, size_t size);

}  // namespace aggtree::fuzz
