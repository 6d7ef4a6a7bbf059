#include "AgentHarness.h"

#include <algorithm>
#include <filesystem>

namespace FenRELTest {

AgentHarness::AgentHarness()
{
    _root.Write("etc/corvid/zun/.keep", "");
    _controllerCert = CtrlSim::SelfSignedCert::Make(_root.Path(), "controller");
    // The host's identity where the daemon looks for it by default.
    const CtrlSim::SelfSignedCert host = CtrlSim::SelfSignedCert::Make(_root.Path(), "host");
    std::filesystem::copy_file(host.keyFile, _root.File("etc/corvid/zun/host-privkey.pem"));
    std::filesystem::copy_file(host.certFile, _root.File("etc/corvid/zun/host-cert.pem"));
}

AgentHarness::~AgentHarness()
{
    _daemon.reset();
    if (_dataPath) {
        _dataPath->Stop();
    }
    for (auto& controller : _controllers) {
        controller->Stop();
    }
}

CtrlSim::ControllerSim& AgentHarness::AddController(int host, bool tls)
{
    CtrlSim::ControllerSim::Options options;
    options.address = "127.0.0." + std::to_string(host);
    if (tls) {
        options.keyFile = _controllerCert.keyFile;
        options.certFile = _controllerCert.certFile;
    }
    _controllers.push_back(std::make_unique<CtrlSim::ControllerSim>(options));
    _controllers.back()->Start();
    return *_controllers.back();
}

void AgentHarness::WriteControllerInfo(const std::string& pem)
{
    std::string xml = "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<config>\n\t<connectionList>\n";
    int id = 0;
    for (const auto& controller : _controllers) {
        xml += "\t\t<connection id=\"" + std::to_string(id++) + "\">\n";
        xml += "\t\t\t<server>" + controller->Address() + "</server>\n";
        xml += "\t\t\t<port>" + std::to_string(controller->Port()) + "</port>\n";
        xml += std::string("\t\t\t<sslEnabled>") + (controller->IsTls() ? "true" : "false") + "</sslEnabled>\n";
        if (controller->IsTls()) {
            xml += "\t\t\t<pemKey>" + (pem.empty() ? _controllerCert.certPem : pem) + "</pemKey>\n";
        }
        xml += "\t\t</connection>\n";
    }
    xml += "\t</connectionList>\n\t<transportNode>\n\t\t<UUID>";
    xml += NodeUuid();
    xml += "</UUID>\n\t</transportNode>\n</config>\n";
    _root.Write("etc/corvid/zun/controller-info.xml", xml);
}

DpSim::DataPathSim& AgentHarness::AddDataPath(bool autoFullSync)
{
    DpSim::DataPathSim::Options options;
    options.path = _root.Path() + DpSim::DataPathSim::kDefaultPath;
    options.autoFullSync = autoFullSync;
    _dataPath = std::make_unique<DpSim::DataPathSim>(options);
    _dataPath->Start();
    return *_dataPath;
}

bool AgentHarness::IsOpen(const CtrlSim::RecordedMessage& msg)
{
    return msg.Is(CtrlSim::MsgType::SessionControl, CtrlSim::SessionHandler::ProtocolId) && !msg.body.empty() &&
           msg.body[0] == CtrlSim::SessionHandler::Open;
}

CtrlSim::ControllerSim* AgentHarness::SessionController()
{
    CtrlSim::ControllerSim* latest = nullptr;
    CtrlSim::SteadyTime latestOpen{};
    for (const auto& controller : _controllers) {
        const auto messages = controller->Messages();
        const auto open = std::find_if(messages.rbegin(), messages.rend(), IsOpen);
        if (open != messages.rend() && (latest == nullptr || open->received > latestOpen)) {
            latest = controller.get();
            latestOpen = open->received;
        }
    }
    return latest;
}

testing::AssertionResult AgentHarness::MoveSession(CtrlSim::ControllerSim& from, CtrlSim::ControllerSim& to,
                                                   std::chrono::milliseconds timeout)
{
    const size_t ends = to.Config().State().fullSyncEnds;
    if (!from.SendMessage(CtrlSim::SessionHandler::MasterUpdate(to.Address(), from.Session().LastSessionId()))) {
        return testing::AssertionFailure() << from.Address() << " has no connection up\n" << from.Summary();
    }
    if (!to.Config().WaitUntil([ends](const CtrlSim::ConfigHandler::HostState& s) { return s.fullSyncEnds > ends; },
                               timeout)) {
        return testing::AssertionFailure() << "no full sync with " << to.Address() << "\n" << to.Summary();
    }
    return testing::AssertionSuccess();
}

MainConfigXml AgentHarness::FullConfig()
{
    MainConfigXml config;
    for (const char* name : {"session", "config", "vxlan", "traceflow"}) {
        config.apps.push_back({name, "true", "", true});
    }
    return config;
}

MainConfigXml AgentHarness::SessionOnlyConfig()
{
    MainConfigXml config;
    config.apps.push_back({"session", "true", "", true});
    return config;
}

void AgentHarness::Start(MainConfigXml config)
{
    _mainConfig = _root.Write("etc/corvid/zun/fenrel.xml", config.ToXml());
    Restart();
}

void AgentHarness::Restart()
{
    _daemon.reset();
    _daemon = std::make_unique<DaemonProcess>(DaemonProcess::FenrelBinary(), std::vector<std::string>{"-c", _mainConfig},
                                              std::map<std::string, std::string>{{"FENREL_ROOT", _root.Path()}},
                                              _root.Path());
}

}  // namespace FenRELTest
