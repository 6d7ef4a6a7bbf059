#include "AgentHarness.h"

#include <fstream>
#include <sstream>

namespace FenRELTest {

AgentHarness::AgentHarness()
{
    _root.Write("etc/corvid/zun/.keep", "");
    _controllerCert = CtrlSim::SelfSignedCert::Make(_root.Path(), "controller");
    _hostCert = CtrlSim::SelfSignedCert::Make(_root.Path(), "host");
    // The host's identity where the daemon looks for it by default.
    std::ifstream key(_hostCert.keyFile);
    std::ifstream cert(_hostCert.certFile);
    std::stringstream keyText;
    std::stringstream certText;
    keyText << key.rdbuf();
    certText << cert.rdbuf();
    _root.Write("etc/corvid/zun/host-privkey.pem", keyText.str());
    _root.Write("etc/corvid/zun/host-cert.pem", certText.str());
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
