#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ControllerSim.h"
#include "DaemonProcess.h"
#include "DataPathSim.h"
#include "MainConfigXml.h"
#include "SelfSignedCert.h"
#include "TempDir.h"

namespace FenRELTest {

// One real `fenrel` daemon under a private root, with its files written the
// way an operator would: main configuration, controller list, host identity.
// Controllers are simulators on 127.0.0.x, one address each, since the agent
// tells controllers apart by address.
class AgentHarness {
public:
    AgentHarness();
    ~AgentHarness();

    const std::string& Root() const { return _root.Path(); }

    // A simulated controller on 127.0.0.`host`, TLS with the controller
    // certificate unless `tls` is false.
    CtrlSim::ControllerSim& AddController(int host, bool tls = true);
    CtrlSim::ControllerSim& Controller(size_t index) { return *_controllers.at(index); }

    // Writes controller-info.xml naming every controller added so far; `pem`
    // replaces the pinned certificate when not empty.
    void WriteControllerInfo(const std::string& pem = "");
    // The node UUID written into controller-info.xml.
    static const char* NodeUuid() { return "5e6f7a8b-1c2d-4e3f-9a0b-0c1d2e3f4a5b"; }

    // The simulated data-path agent on the daemon's default socket path.
    DpSim::DataPathSim& AddDataPath(bool autoFullSync);
    DpSim::DataPathSim& DataPath() { return *_dataPath; }

    // The host's Open of its session.
    static bool IsOpen(const CtrlSim::RecordedMessage& msg);
    // The controller that holds the host's session: the one that got the
    // latest Open; null before any.
    CtrlSim::ControllerSim* SessionController();
    // Has `from`, which holds the host's session, name `to` as the master
    // controller, and waits until the session's full sync has run with `to`.
    // The connection to `from` stays: the controller list keeps its share.
    testing::AssertionResult MoveSession(CtrlSim::ControllerSim& from, CtrlSim::ControllerSim& to,
                                         std::chrono::milliseconds timeout);

    // Writes the main configuration and starts the daemon.
    void Start(MainConfigXml config);
    DaemonProcess& Daemon() { return *_daemon; }
    void Restart();

    // The session app alone: enough for the channel to connect and negotiate.
    static MainConfigXml SessionOnlyConfig();
    // Every app that the controller-to-data-path story needs.
    static MainConfigXml FullConfig();

private:
    TempDir _root;
    CtrlSim::SelfSignedCert _controllerCert;
    std::vector<std::unique_ptr<CtrlSim::ControllerSim>> _controllers;
    std::unique_ptr<DpSim::DataPathSim> _dataPath;
    std::unique_ptr<DaemonProcess> _daemon;
    std::string _mainConfig;
};

}  // namespace FenRELTest
