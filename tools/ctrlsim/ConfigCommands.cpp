#include "ConfigCommands.h"

#include <fstream>
#include <sstream>

#include <google/protobuf/text_format.h>

#include "CommandShell.h"
#include "ControllerSim.h"
#include "Hex.h"

namespace CtrlSim {

namespace {

// Reads the configuration that `source` names (a file of text, or hex);
// "" or what is wrong.
std::string ReadConfig(const std::string& source, ConfigHandler::CcpLcpZunConfigMsg& msg)
{
    std::ifstream file(source);
    if (file) {
        std::stringstream text;
        text << file.rdbuf();
        return google::protobuf::TextFormat::ParseFromString(text.str(), &msg)
                   ? ""
                   : source + " is not a CcpLcpZunConfigMsg in text form";
    }
    const auto bytes = FromHex(source);
    if (!bytes || !msg.ParseFromArray(bytes->data(), static_cast<int>(bytes->size()))) {
        return source + " is neither a readable file nor a serialised CcpLcpZunConfigMsg in hex";
    }
    return "";
}

std::string Sent(bool sent)
{
    return sent ? "" : "the host's config connection is not up";
}

}  // namespace

std::string ConfigCommands::Push(ControllerSim& sim, const Args& args, std::string&)
{
    std::ifstream file(args[0]);
    if (!file) {
        // Hex goes out as it stands, so that a test can send what the host must refuse.
        const auto bytes = FromHex(args[0]);
        return bytes ? Sent(sim.Config().PushPayload(*bytes)) : "bad hex, and no such file: " + args[0];
    }
    ConfigHandler::CcpLcpZunConfigMsg msg;
    const std::string error = ReadConfig(args[0], msg);
    return error.empty() ? Sent(sim.Config().Push(msg)) : error;
}

std::string ConfigCommands::End(ControllerSim& sim, const Args& args, std::string&)
{
    std::optional<uint32_t> session;
    if (!args.empty()) {
        const auto number = CommandShell::ParseNumber(args[0], 0xFFFFFFFF);
        if (!number) {
            return "bad session id " + args[0];
        }
        session = static_cast<uint32_t>(*number);
    }
    return Sent(sim.Config().SendFullSyncEnd(session));
}

std::string ConfigCommands::Auto(ControllerSim& sim, const Args& args, std::string&)
{
    if (args[0] != "on" && args[0] != "off") {
        return "expected on or off";
    }
    if (args.size() > 1) {
        ConfigHandler::CcpLcpZunConfigMsg msg;
        const std::string error = ReadConfig(args[1], msg);
        if (!error.empty()) {
            return error;
        }
        sim.Config().SetConfiguration({msg.entity_property().begin(), msg.entity_property().end()});
    }
    sim.Config().SetAutoAnswer(args[0] == "on");
    return "";
}

std::string ConfigCommands::View(ControllerSim& sim, const Args&, std::string& output)
{
    output += sim.Config().State().ToString();
    return "";
}

std::string ConfigCommands::TraceflowOut(ControllerSim& sim, const Args& args, std::string&)
{
    const auto payload = FromHex(args[0] == "-" ? "" : args[0]);
    if (!payload) {
        return "bad hex";
    }
    std::optional<size_t> connection;
    if (args.size() > 1) {
        connection = CommandShell::ParseNumber(args[1], SIZE_MAX);
        if (!connection) {
            return "bad connection index " + args[1];
        }
    }
    return sim.Traceflow().SendPacketOut(*payload, connection) ? "" : "no connection is up";
}

std::string ConfigCommands::TraceflowView(ControllerSim& sim, const Args&, std::string& output)
{
    for (const TraceflowHandler::Observation& seen : sim.Traceflow().Observations()) {
        output += "conn " + std::to_string(seen.connection) + " session " + std::to_string(seen.sessionId) +
                  (seen.parses ? " " : " unparsable ") + ToHex(seen.payload) + "\n";
    }
    return "";
}

}  // namespace CtrlSim
