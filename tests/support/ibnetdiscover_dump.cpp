#include "support/ibnetdiscover_dump.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <vector>

namespace {

// What one switch port is cabled to.
struct PortEnd {
    bool to_host = false;
    size_t remote = 0;  // host index, or switch index
    int remote_port = 1;
};

std::string Hex16(uint64_t value) {
    char text[20];
    std::snprintf(text, sizeof(text), "%016llx", static_cast<unsigned long long>(value));
    return text;
}

std::string Hex(uint64_t value) {
    char text[20];
    std::snprintf(text, sizeof(text), "%llx", static_cast<unsigned long long>(value));
    return text;
}

uint64_t CaNodeGuid(const HostDescription& host) {
    return host.guid ^ (uint64_t{1} << 56);
}

// Ports of every switch: its hosts first, then one port per cable in link order.
std::vector<std::vector<PortEnd>> NumberPorts(const FabricDescription& description) {
    std::vector<std::vector<PortEnd>> ports(description.switches.size());
    for (size_t h = 0; h < description.hosts.size(); ++h) {
        ports.at(description.hosts[h].switch_index).push_back(PortEnd{true, h, 1});
    }
    for (const LinkDescription& link : description.links) {
        for (uint16_t k = 0; k < link.count; ++k) {
            int port_a = static_cast<int>(ports.at(link.a).size()) + 1;
            int port_b = static_cast<int>(ports.at(link.b).size()) + 1;
            ports[link.a].push_back(PortEnd{false, link.b, port_b});
            ports[link.b].push_back(PortEnd{false, link.a, port_a});
        }
    }
    for (const std::vector<PortEnd>& switch_ports : ports) {
        if (switch_ports.size() > 255) {
            throw std::invalid_argument("a switch of the dump would have more than 255 ports");
        }
    }
    return ports;
}

}  // namespace

std::string WriteIbnetdiscoverDump(const FabricDescription& description) {
    const std::vector<std::vector<PortEnd>> ports = NumberPorts(description);
    // Lids: switches 1.., hosts after them.
    auto switch_lid = [](size_t s) { return std::to_string(s + 1); };
    auto host_lid = [&](size_t h) { return std::to_string(description.switches.size() + h + 1); };
    std::vector<int> host_port(description.hosts.size(), 0);
    for (size_t s = 0; s < ports.size(); ++s) {
        for (size_t p = 0; p < ports[s].size(); ++p) {
            if (ports[s][p].to_host) {
                host_port[ports[s][p].remote] = static_cast<int>(p + 1);
            }
        }
    }

    std::string out =
        "#\n# Topology file: generated on Tue Mar  4 10:12:33 2025\n#\n# Initiated from node " +
        Hex16(description.hosts.empty() ? 1 : CaNodeGuid(description.hosts.front())) + " port " +
        Hex16(description.hosts.empty() ? 1 : description.hosts.front().guid) + "\n\n";
    for (size_t s = 0; s < description.switches.size(); ++s) {
        const SwitchDescription& sw = description.switches[s];
        const size_t port_count = std::max<size_t>(ports[s].size(), 40);
        out += "vendid=0x2c9\ndevid=0xd2f0\nsysimgguid=0x" + Hex(sw.guid) + "\nswitchguid=0x" +
               Hex(sw.guid) + "(" + Hex(sw.guid) + ")\n";
        out += "Switch\t" + std::to_string(port_count) + " \"S-" + Hex16(sw.guid) + "\"\t\t# \"" +
               sw.name + "\" enhanced port 0 lid " + switch_lid(s) + " lmc 0\n";
        for (size_t p = 0; p < ports[s].size(); ++p) {
            const PortEnd& end = ports[s][p];
            out += "[" + std::to_string(p + 1) + "]\t";
            if (end.to_host) {
                const HostDescription& host = description.hosts[end.remote];
                out += "\"H-" + Hex16(CaNodeGuid(host)) + "\"[1](" + Hex(host.guid) + ") \t\t# \"" +
                       host.name + " HCA-1\" lid " + host_lid(end.remote) + " 4xHDR\n";
            } else {
                const SwitchDescription& remote = description.switches[end.remote];
                out += "\"S-" + Hex16(remote.guid) + "\"[" + std::to_string(end.remote_port) +
                       "]\t\t# \"" + remote.name + "\" lid " + switch_lid(end.remote) + " 4xHDR\n";
            }
        }
        out += "\n";
    }
    for (size_t h = 0; h < description.hosts.size(); ++h) {
        const HostDescription& host = description.hosts[h];
        const SwitchDescription& sw = description.switches.at(host.switch_index);
        const uint64_t node = CaNodeGuid(host);
        out += "vendid=0x2c9\ndevid=0x101b\nsysimgguid=0x" + Hex(node) + "\ncaguid=0x" + Hex(node) +
               "\n";
        out += "Ca\t1 \"H-" + Hex16(node) + "\"\t\t# \"" + host.name + " HCA-1\"\n";
        out += "[1](" + Hex(host.guid) + ") \t\"S-" + Hex16(sw.guid) + "\"[" +
               std::to_string(host_port[h]) + "]\t\t# lid " + host_lid(h) + " lmc 0 \"" + sw.name +
               "\" lid " + std::to_string(host.switch_index + 1) + " 4xHDR\n\n";
    }
    return out;
}
