// The job file (JSON): job id, hosts and ports, and the resource request.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "fabric_model/fabric.h"
#include "fabric_model/identifiers.h"
#include "fabric_model/job_resource.h"
#include "topology/input_error.h"

namespace aggtree {

struct JobDescription {
    ZeltaExtJobId job_id;
    std::vector<PortData> ports;  // the union of hosts and ports, without repeats
    JobResource resource;
};

// Reads a job file's text against `fabric` (host names resolve there); throws
// InputError naming `file_name` and the JSON path.
JobDescription ParseJobJson(std::string_view text, const std::string& file_name,
                            const Fabric& fabric);

// Reads a job file from disk.
JobDescription LoadJobFile(const std::string& path, const Fabric& fabric);

}  // namespace aggtree
