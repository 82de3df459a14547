// Where the build command's job comes from: a job file, or hosts named on the command
// line, listed in a file, or drawn at random from the fabric.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fabric_model/fabric.h"
#include "topology/job_file.h"

namespace aggtree::cli {

struct JobSource {
    std::string job_file;        // --job
    std::string hosts;           // --hosts, comma-separated names or GUIDs
    std::string hosts_file;      // --hosts-from
    long long random_hosts = 0;  // --random-hosts
    uint32_t seed = 1;           // --seed
    std::string job_id;          // --job-id, overrides the job file's id when given

    bool has_job_file = false;
    bool has_hosts = false;
    bool has_hosts_file = false;
    bool has_random_hosts = false;
};

// The job described by the source, with the default resource request unless a job
// file gives one.  Throws UsageError (not exactly one source, bad --job-id) or
// InputError (bad job file, unknown host, empty host set).
JobDescription MakeJob(const JobSource& source, const Fabric& fabric);

// "PREFIX_NUMBER" (split at the last '_') or a bare number; throws UsageError.
ZeltaExtJobId ParseJobIdText(const std::string& text);

// Indices of `count` distinct hosts out of `host_count`, drawn with a Mersenne Twister
// seeded with `seed`: the same on every platform and run.
std::vector<size_t> PickRandomHosts(size_t host_count, size_t count, uint32_t seed);

}  // namespace aggtree::cli
