#include "CommandShell.h"

#include <arpa/inet.h>

#include <cstdio>
#include <sstream>
#include <vector>

#include "DataPathSim.h"

namespace DpSim {

namespace {

namespace l2 = com::corvid::zun::l2;

// A comma-separated list, or "-" for none.
template <typename T>
std::optional<std::vector<T>> ParseList(const std::string& text, std::optional<T> (*parse)(const std::string&))
{
    std::vector<T> values;
    if (text == "-") {
        return values;
    }
    std::istringstream in(text);
    for (std::string item; std::getline(in, item, ',');) {
        const std::optional<T> value = parse(item);
        if (!value) {
            return std::nullopt;
        }
        values.push_back(*value);
    }
    return values;
}

}  // namespace

CommandShell::CommandShell(DataPathSim& sim) : _sim(sim)
{
    SetCommands({
        {"status", "status", 0, 0, [this](const Args& args) { return Status(args); }},
        {"view", "view", 0, 0, [this](const Args& args) { return View(args); }},
        {"fullsync", "fullsync   (send the first message: all local state)", 0, 0,
         [this](const Args& args) { return FullSync(args); }},
        {"auto-fullsync", "auto-fullsync on|off", 1, 1, [this](const Args& args) { return AutoFullSync(args); }},
        {"vif", "vif <id> <ipv4[,ipv4...]|-> <mac[,mac...]|->", 3, 3, [this](const Args& args) { return Vif(args); }},
        {"vif-del", "vif-del <id>", 1, 1, [this](const Args& args) { return VifDel(args); }},
        {"l2",
         "l2 add|del <vni> vtep <ipv4> | vm-mac <mac> <vtep-ipv4> | vm-ip <ipv4> <mac>;  l2 leave <vni>", 2, 5,
         [this](const Args& args) { return L2(args); }},
        {"close", "close", 0, 0, [this](const Args& args) { return Close(args); }},
    });
}

std::optional<uint32_t> CommandShell::ParseIpv4(const std::string& text)
{
    in_addr address;
    if (inet_pton(AF_INET, text.c_str(), &address) != 1) {
        return std::nullopt;
    }
    return ntohl(address.s_addr);
}

std::optional<uint64_t> CommandShell::ParseMac(const std::string& text)
{
    unsigned int bytes[6];
    char extra;
    if (sscanf(text.c_str(), "%2x:%2x:%2x:%2x:%2x:%2x%c", &bytes[0], &bytes[1], &bytes[2], &bytes[3], &bytes[4],
               &bytes[5], &extra) != 6) {
        return std::nullopt;
    }
    uint64_t mac = 0;
    for (const unsigned int byte : bytes) {
        mac = (mac << 8) | byte;
    }
    return mac;
}

std::string CommandShell::LocalChange(const std::string& error)
{
    if (error.empty() && !(_sim.IsConnected() && _sim.FirstMessageSent())) {
        Output() += "kept for the first message of a connection\n";
    }
    return error;
}

std::string CommandShell::Status(const Args&)
{
    const DataPathView view = _sim.View();
    Output() += "connected " + std::string(_sim.IsConnected() ? "yes" : "no") + " accepted " +
                std::to_string(_sim.AcceptedCount()) + " first-sent " + (_sim.FirstMessageSent() ? "yes" : "no") +
                " messages " + std::to_string(_sim.Messages().size()) + " violations " +
                std::to_string(_sim.Violations().size()) + "\n";
    return "";
}

std::string CommandShell::View(const Args&)
{
    Output() += _sim.View().Describe();
    return "";
}

std::string CommandShell::FullSync(const Args&)
{
    return _sim.SendFullSync() ? "" : "no connection";
}

std::string CommandShell::AutoFullSync(const Args& args)
{
    if (args[0] != "on" && args[0] != "off") {
        return "expected on or off";
    }
    _sim.SetAutoFullSync(args[0] == "on");
    return "";
}

std::string CommandShell::Vif(const Args& args)
{
    const auto ips = ParseList<uint32_t>(args[1], &ParseIpv4);
    const auto macs = ParseList<uint64_t>(args[2], &ParseMac);
    if (!ips || !macs) {
        return "bad address list";
    }
    return LocalChange(_sim.SetVif(args[0], LocalState::Vif{*ips, *macs}));
}

std::string CommandShell::VifDel(const Args& args)
{
    return LocalChange(_sim.RemoveVif(args[0]));
}

std::string CommandShell::L2(const Args& args)
{
    const auto vni = ParseNumber(args[1], 0xFFFFFFFF);
    if (!vni) {
        return "bad vni " + args[1];
    }
    if (args[0] == "leave") {
        return args.size() == 2 ? LocalChange(_sim.LeaveVni(static_cast<uint32_t>(*vni))) : "usage: l2 leave <vni>";
    }
    if ((args[0] != "add" && args[0] != "del") || args.size() < 4) {
        return "expected add, del or leave";
    }
    l2::L2UpdateMappingItemMsg item;
    int32_t type = 0;
    const std::string& kind = args[2];
    if (kind == "vtep" && args.size() == 4) {
        const auto ip = ParseIpv4(args[3]);
        if (!ip) {
            return "bad address " + args[3];
        }
        type = l2::L2MappingUpdateMsg::VTEP;
        item.mutable_vtep()->mutable_vtep_ip()->set_ipv4(*ip);
    } else if (kind == "vm-mac" && args.size() == 5) {
        const auto mac = ParseMac(args[3]);
        const auto vtep = ParseIpv4(args[4]);
        if (!mac || !vtep) {
            return "bad mac or address";
        }
        type = l2::L2MappingUpdateMsg::VM_MAC;
        item.mutable_vm_mac()->mutable_vm_mac()->set_mac(*mac);
        item.mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(*vtep);
    } else if (kind == "vm-ip" && args.size() == 5) {
        const auto ip = ParseIpv4(args[3]);
        const auto mac = ParseMac(args[4]);
        if (!ip || !mac) {
            return "bad address or mac";
        }
        type = l2::L2MappingUpdateMsg::VM_IP;
        item.mutable_vm_ip()->mutable_vm_ip()->set_ipv4(*ip);
        item.mutable_vm_ip()->mutable_vm_mac()->set_mac(*mac);
    } else {
        return "expected vtep <ipv4>, vm-mac <mac> <vtep-ipv4> or vm-ip <ipv4> <mac>";
    }
    const uint32_t number = static_cast<uint32_t>(*vni);
    return LocalChange(args[0] == "add" ? _sim.AddL2(number, type, item) : _sim.DeleteL2(number, type, item));
}

std::string CommandShell::Close(const Args&)
{
    return _sim.CloseConnection() ? "" : "no connection";
}

}  // namespace DpSim
