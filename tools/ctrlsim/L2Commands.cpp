#include "L2Commands.h"

#include <cstdint>
#include <optional>

#include "CommandShell.h"
#include "ControllerSim.h"

namespace CtrlSim {

namespace {

std::string Sent(bool sent)
{
    return sent ? "" : "the host's connection is not up";
}

std::optional<L2Handler::Vm> ParseVm(const std::string& mac, const std::string& ip, const std::string& vtep)
{
    const auto macValue = L2Handler::ParseMac(mac);
    const auto ipValue = L2Handler::ParseIp(ip);
    const auto vtepValue = L2Handler::ParseIp(vtep);
    if (!macValue || !ipValue || !vtepValue) {
        return std::nullopt;
    }
    return L2Handler::Vm{*macValue, *ipValue, *vtepValue};
}

// Reads "fragment N" at args[at]; "" or what is wrong.
std::string ParseFragment(const L2Commands::Args& args, size_t at, size_t& frameLimit)
{
    if (at + 1 >= args.size() || args[at] != "fragment") {
        return "expected fragment N at " + args[at];
    }
    const auto limit = CommandShell::ParseNumber(args[at + 1], 0xFFFF);
    if (!limit || *limit <= 15) {
        return "bad frame limit " + args[at + 1];
    }
    frameLimit = *limit;
    return "";
}

}  // namespace

std::string L2Commands::Push(ControllerSim& sim, const Args& args, std::string&)
{
    const auto vni = CommandShell::ParseNumber(args[0], 0xFFFFFFFF);
    const auto vm = ParseVm(args[1], args[2], args[3]);
    if (!vni || !vm) {
        return "bad VNI, MAC or address";
    }
    bool remove = false;
    size_t frameLimit = 0;
    for (size_t i = 4; i < args.size(); ++i) {
        if (args[i] == "del") {
            remove = true;
            continue;
        }
        const std::string error = ParseFragment(args, i, frameLimit);
        if (!error.empty()) {
            return error;
        }
        ++i;
    }
    std::vector<L2Handler::Vm> vms{*vm};
    return Sent(remove ? sim.L2().PushDelta(static_cast<uint32_t>(*vni), {}, vms, frameLimit)
                       : sim.L2().PushDelta(static_cast<uint32_t>(*vni), vms, {}, frameLimit));
}

std::string L2Commands::Sync(ControllerSim& sim, const Args& args, std::string&)
{
    const auto vni = CommandShell::ParseNumber(args[0], 0xFFFFFFFF);
    if (!vni) {
        return "bad VNI " + args[0];
    }
    std::vector<L2Handler::Vm> vms;
    size_t frameLimit = 0;
    for (size_t i = 1; i < args.size(); ++i) {
        const size_t first = args[i].find('/');
        const size_t second = first == std::string::npos ? first : args[i].find('/', first + 1);
        if (second == std::string::npos) {
            const std::string error = ParseFragment(args, i, frameLimit);
            if (!error.empty()) {
                return error;
            }
            ++i;
            continue;
        }
        const auto vm = ParseVm(args[i].substr(0, first), args[i].substr(first + 1, second - first - 1),
                                args[i].substr(second + 1));
        if (!vm) {
            return "bad VM " + args[i] + ", expected MAC/IP/VTEP-IP";
        }
        vms.push_back(*vm);
    }
    return Sent(sim.L2().PushFullSync(static_cast<uint32_t>(*vni), vms, frameLimit));
}

std::string L2Commands::Notify(ControllerSim& sim, const Args& args, std::string&)
{
    const auto vni = CommandShell::ParseNumber(args[0], 0xFFFFFFFF);
    std::optional<uint64_t> error = 1;
    std::optional<uint64_t> sub = 2;
    if (args.size() == 3) {
        error = CommandShell::ParseNumber(args[1], 0xFFFF);
        sub = CommandShell::ParseNumber(args[2], 0xFFFF);
    } else if (args.size() != 1) {
        return "give both the error and the sub code, or neither";
    }
    if (!vni || !error || !sub) {
        return "bad VNI, error or sub code";
    }
    return Sent(sim.L2().SendNotification(static_cast<uint16_t>(*error), static_cast<uint16_t>(*sub),
                                          static_cast<uint32_t>(*vni)));
}

std::string L2Commands::View(ControllerSim& sim, const Args&, std::string& output)
{
    output += sim.L2().State().ToString();
    return "";
}

}  // namespace CtrlSim
