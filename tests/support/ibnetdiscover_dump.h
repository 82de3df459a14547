// ibnetdiscover dumps of described fabrics, written the way the real tool prints them
// (header comments, vendid/devid/sysimgguid/switchguid lines, Switch records with their
// port lines, then one Ca record per host port), for tests and seed inputs that need
// realistic dumps of any size.
//
// Switch ports are numbered hosts first, then one port per cable to another switch in
// link order; a Ca has one port whose port GUID is the host's GUID and whose node GUID
// is the host's GUID with the lowest bit cleared.  Hosts must have distinct node GUIDs
// and every switch at most 255 ports.
#pragma once

#include <string>

#include "fabric_model/fabric_description.h"

// The dump of `description`; every switch's description is its name, every Ca's
// "<host name> HCA-1".  Ranks, groups and switch attributes are not part of a dump.
std::string WriteIbnetdiscoverDump(const FabricDescription& description);
