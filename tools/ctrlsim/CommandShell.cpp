#include "CommandShell.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <limits>

#include "ConfigCommands.h"
#include "ControllerSim.h"
#include "Hex.h"
#include "L2Commands.h"

namespace CtrlSim {

namespace {

// The reply to an action on `connection` (the current one when unset).
std::string Outcome(bool done, const std::optional<size_t>& connection)
{
    if (done) {
        return "";
    }
    return connection ? "connection " + std::to_string(*connection) + " is not up" : "no connection is up";
}

// Runs `action` on the connection that args[at] names, or on the current one
// when there is no args[at].
std::string OnConnection(const std::vector<std::string>& args, size_t at,
                         const std::function<bool(std::optional<size_t>)>& action)
{
    std::optional<size_t> connection;
    if (args.size() > at) {
        connection = CommandShell::ParseNumber(args[at], SIZE_MAX);
        if (!connection) {
            return "bad connection index " + args[at];
        }
    }
    return Outcome(action(connection), connection);
}

// Sets an optional 16- or 32-bit field from a number or "none".
template <typename T>
std::string SetOptional(std::optional<T>& field, const std::string& value)
{
    if (value == "none") {
        field.reset();
        return "";
    }
    const auto number = CommandShell::ParseNumber(value, std::numeric_limits<T>::max());
    if (!number) {
        return "bad value " + value;
    }
    field = static_cast<T>(*number);
    return "";
}

std::string SetByte(uint8_t& field, const std::string& value)
{
    const auto number = CommandShell::ParseNumber(value, 0xFF);
    if (!number) {
        return "bad byte " + value;
    }
    field = static_cast<uint8_t>(*number);
    return "";
}

std::string AddFeature(Hello& hello, const std::string& value)
{
    // ID:VERSION[:HEX]
    const size_t first = value.find(':');
    const size_t second = first == std::string::npos ? first : value.find(':', first + 1);
    const auto id = CommandShell::ParseNumber(value.substr(0, first), 0xFFFF);
    const auto version = first == std::string::npos
                             ? std::nullopt
                             : CommandShell::ParseNumber(value.substr(first + 1, second - first - 1), 0xFF);
    const auto data = second == std::string::npos ? std::optional<Bytes>(Bytes()) : FromHex(value.substr(second + 1));
    if (!id || !version || !data) {
        return "bad feature " + value + ", expected ID:VERSION[:HEX]";
    }
    hello.features.push_back(HelloFeature{static_cast<uint16_t>(*id), static_cast<uint8_t>(*version), *data});
    return "";
}

}  // namespace

CommandShell::CommandShell(ControllerSim& sim) : _sim(sim)
{
    SetCommands({
        {"keepalive", "keepalive on|off", 1, 1, [this](const Args& args) { return KeepAlive(args); }},
        {"keepalive-period", "keepalive-period <ms>|auto", 1, 1,
         [this](const Args& args) { return KeepAlivePeriod(args); }},
        {"hello-mode", "hello-mode answer|first|silent", 1, 1, [this](const Args& args) { return HelloMode(args); }},
        {"hello-set", "hello-set <field> <value>   (fields as the options: max-pkt-len 1000, node-uuid none, ...)",
         2, 2, [this](const Args& args) { return HelloSet(args); }},
        {"hello", "hello [conn]", 0, 1, [this](const Args& args) { return SendHello(args); }},
        {"send", "send <type> <protocolID> <hex body|-> [fragment N] [session S] [version V] [conn C]", 3, 11,
         [this](const Args& args) { return Send(args); }},
        {"raw", "raw <hex> [conn]", 1, 2, [this](const Args& args) { return Raw(args); }},
        {"close", "close [conn]", 0, 1, [this](const Args& args) { return Close(args); }},
        {"accept", "accept on|refuse|off", 1, 1, [this](const Args& args) { return Accept(args); }},
        {"master", "master <address> [conn]   (MASTER_CONTROLLER naming <address>, in the host's last session)", 1, 2,
         [this](const Args& args) { return Master(args); }},
        {"status", "status", 0, 0, [this](const Args& args) { return Status(args); }},
        {"config-push", "config-push <file of CcpLcpZunConfigMsg text|hex payload>", 1, 1,
         [this](const Args& args) { return ConfigCommands::Push(_sim, args, Output()); }},
        {"config-end", "config-end [session]", 0, 1,
         [this](const Args& args) { return ConfigCommands::End(_sim, args, Output()); }},
        {"config-auto", "config-auto on|off [file of CcpLcpZunConfigMsg text]", 1, 2,
         [this](const Args& args) { return ConfigCommands::Auto(_sim, args, Output()); }},
        {"config-view", "config-view", 0, 0,
         [this](const Args& args) { return ConfigCommands::View(_sim, args, Output()); }},
        {"traceflow-out", "traceflow-out <hex TraceflowMsg|-> [conn]", 1, 2,
         [this](const Args& args) { return ConfigCommands::TraceflowOut(_sim, args, Output()); }},
        {"traceflow-view", "traceflow-view", 0, 0,
         [this](const Args& args) { return ConfigCommands::TraceflowView(_sim, args, Output()); }},
        {"l2-push", "l2-push <vni> <mac> <ip> <vtep-ip> [del] [fragment N]", 4, 7,
         [this](const Args& args) { return L2Commands::Push(_sim, args, Output()); }},
        {"l2-sync", "l2-sync <vni> [<mac>/<ip>/<vtep-ip>]... [fragment N]", 1, 64,
         [this](const Args& args) { return L2Commands::Sync(_sim, args, Output()); }},
        {"l2-notify", "l2-notify <vni> [<error> <sub>]", 1, 3,
         [this](const Args& args) { return L2Commands::Notify(_sim, args, Output()); }},
        {"l2-view", "l2-view", 0, 0, [this](const Args& args) { return L2Commands::View(_sim, args, Output()); }},
    });
}

std::string CommandShell::SetHelloField(Hello& hello, const std::string& field, const std::string& value)
{
    if (field == "version") {
        return SetByte(hello.version, value);
    }
    if (field == "flags") {
        return SetByte(hello.helloFlags, value);
    }
    if (field == "max-pkt-len") {
        return SetOptional(hello.maxPktLen, value);
    }
    if (field == "keepalive-interval") {
        return SetOptional(hello.keepAliveInterval, value);
    }
    if (field == "msg-frequency") {
        return SetOptional(hello.msgFrequency, value);
    }
    if (field == "slice-length") {
        return SetOptional(hello.shardingSliceLength, value);
    }
    if (field == "node-uuid") {
        if (value == "none") {
            hello.nodeUuid.reset();
            return "";
        }
        const auto bytes = FromHex(value);
        if (!bytes || bytes->size() != 16) {
            return "bad UUID " + value;
        }
        Uuid uuid;
        std::copy(bytes->begin(), bytes->end(), uuid.begin());
        hello.nodeUuid = uuid;
        return "";
    }
    if (field == "feature") {
        return AddFeature(hello, value);
    }
    if (field == "features" && value == "none") {
        hello.features.clear();
        return "";
    }
    if (field == "extra-tlvs") {
        const auto bytes = FromHex(value == "none" ? "" : value);
        if (!bytes) {
            return "bad hex " + value;
        }
        hello.extraTlvs = *bytes;
        return "";
    }
    return "unknown hello field " + field;
}

std::string CommandShell::KeepAlive(const Args& args)
{
    if (args[0] != "on" && args[0] != "off") {
        return "expected on or off";
    }
    _sim.Core().SetKeepAliveEnabled(args[0] == "on");
    return "";
}

std::string CommandShell::KeepAlivePeriod(const Args& args)
{
    if (args[0] == "auto") {
        _sim.Core().SetKeepAlivePeriod(std::nullopt);
        return "";
    }
    const auto ms = ParseNumber(args[0], 24u * 3600 * 1000);
    if (!ms) {
        return "bad period " + args[0];
    }
    _sim.Core().SetKeepAlivePeriod(std::chrono::milliseconds(*ms));
    return "";
}

std::string CommandShell::HelloMode(const Args& args)
{
    if (args[0] == "answer") {
        _sim.Core().SetHelloMode(CtrlSim::HelloMode::Answer);
    } else if (args[0] == "first") {
        _sim.Core().SetHelloMode(CtrlSim::HelloMode::SendFirst);
    } else if (args[0] == "silent") {
        _sim.Core().SetHelloMode(CtrlSim::HelloMode::Silent);
    } else {
        return "expected answer, first or silent";
    }
    return "";
}

std::string CommandShell::HelloSet(const Args& args)
{
    Hello hello = _sim.Core().GetHello();
    const std::string error = SetHelloField(hello, args[0], args[1]);
    if (error.empty()) {
        _sim.Core().SetHello(hello);
    }
    return error;
}

std::string CommandShell::SendHello(const Args& args)
{
    return OnConnection(args, 0, [this](std::optional<size_t> connection) { return _sim.SendHello(connection); });
}

std::string CommandShell::Send(const Args& args)
{
    OutMessage msg;
    const auto type = ParseNumber(args[0], 0xFFFF);
    const auto protocolId = ParseNumber(args[1], 0xFFFF);
    const auto body = FromHex(args[2] == "-" ? "" : args[2]);
    if (!type || !protocolId || !body) {
        return "bad type, protocolID or body";
    }
    msg.type = static_cast<uint16_t>(*type);
    msg.protocolId = static_cast<uint16_t>(*protocolId);
    msg.body = *body;
    std::optional<size_t> connection;
    for (size_t i = 3; i < args.size(); i += 2) {
        if (i + 1 >= args.size()) {
            return "missing value of " + args[i];
        }
        const std::string& key = args[i];
        const std::string& value = args[i + 1];
        const auto number = ParseNumber(value, key == "fragment" || key == "conn" ? SIZE_MAX : 0xFFFFFFFF);
        if (!number) {
            return "bad value of " + key;
        }
        if (key == "fragment") {
            msg.frameLimit = *number;
        } else if (key == "session") {
            msg.sessionId = static_cast<uint32_t>(*number);
        } else if (key == "version" && *number <= 0xFF) {
            msg.version = static_cast<uint8_t>(*number);
        } else if (key == "conn") {
            connection = *number;
        } else {
            return "bad option " + key + " " + value;
        }
    }
    return Outcome(_sim.SendMessage(msg, connection), connection);
}

std::string CommandShell::Raw(const Args& args)
{
    const auto bytes = FromHex(args[0]);
    if (!bytes) {
        return "bad hex";
    }
    return OnConnection(args, 1, [&](std::optional<size_t> connection) { return _sim.SendRaw(*bytes, connection); });
}

std::string CommandShell::Close(const Args& args)
{
    return OnConnection(args, 0,
                        [this](std::optional<size_t> connection) { return _sim.CloseConnection(connection); });
}

std::string CommandShell::Accept(const Args& args)
{
    if (args[0] == "on") {
        _sim.SetAcceptMode(ControllerSim::AcceptMode::Accept);
    } else if (args[0] == "refuse") {
        _sim.SetAcceptMode(ControllerSim::AcceptMode::CloseAtOnce);
    } else if (args[0] == "off") {
        _sim.SetAcceptMode(ControllerSim::AcceptMode::NotListening);
    } else {
        return "expected on, refuse or off";
    }
    return "";
}

std::string CommandShell::Master(const Args& args)
{
    if (!L2Handler::ParseIp(args[0])) {
        return "bad address " + args[0];
    }
    const OutMessage msg = SessionHandler::MasterUpdate(args[0], _sim.Session().LastSessionId());
    return OnConnection(args, 1, [&](std::optional<size_t> connection) { return _sim.SendMessage(msg, connection); });
}

std::string CommandShell::Status(const Args&)
{
    const Recording recording = _sim.Snapshot();
    for (const ConnectionRecord& connection : recording.connections) {
        Output() += connection.ToString() + "\n";
    }
    const auto current = _sim.CurrentConnection();
    Output() += "connections " + std::to_string(recording.connections.size()) + " messages " +
                std::to_string(recording.messages.size()) + " violations " +
                std::to_string(recording.violations.size()) + " current " +
                (current ? std::to_string(*current) : std::string("none")) + "\n";
    return "";
}

}  // namespace CtrlSim
