#include "AppFactory.h"

#include <string>

#include "AppManager.h"
#include "ConfigApp.h"
#include "L2App.h"
#include "Logger.h"
#include "ProductVersionProvider.h"
#include "SessionApp.h"
#include "TraceflowApp.h"

namespace FenREL {

namespace {

using ZUNChannel::App;

com::corvid::zun::ProductVersionMsg AgentVersion()
{
    const ProductVersionProvider provider;
    const ProductVersionProvider::Version& version = provider.GetVersion();
    com::corvid::zun::ProductVersionMsg msg;
    msg.set_major(version.major);
    msg.set_minor(version.minor);
    msg.set_maintenance(version.maintenance);
    msg.set_patch(version.patch);
    msg.set_suffix(version.suffix);
    msg.set_build_number(version.buildNumber);
    return msg;
}

// The application named by an entry, or null for a name this agent does not
// know. Each application reads the options of its own `config` subtree.
boost::intrusive_ptr<App> CreateApp(const std::string& name, const boost::property_tree::ptree& /*config*/)
{
    if (name == "vxlan") {
        return new L2App();
    }
    if (name == "config") {
        ConfigApp::Init();
        return ConfigApp::Instance();
    }
    if (name == "traceflow") {
        return new TraceflowApp();
    }
    if (name == "session") {
        SessionApp::Init(AgentVersion());
        return SessionApp::Instance();
    }
    return nullptr;
}

}  // namespace

bool AppFactory::CreateApps(const boost::property_tree::ptree& mainConfig)
{
    // A missing list is not caught: the process ends by the exception.
    const boost::property_tree::ptree& apps = mainConfig.get_child("config.fenrel.apps");
    if (apps.empty()) {
        FLOG_VERBOSE("No App configured");
        return false;
    }
    FLOG_VERBOSE("App count: %1", apps.size());
    for (const auto& child : apps) {
        const boost::property_tree::ptree& entry = child.second;
        const std::string name = entry.get<std::string>("name", "");
        // Required even when the entry is disabled.
        const boost::property_tree::ptree& config = entry.get_child("config");
        if (!entry.get<bool>("enabled", false)) {
            continue;
        }
        boost::intrusive_ptr<App> app = CreateApp(name, config);
        if (app) {
            FLOG_VERBOSE("register app %1", name);
            ZUNChannel::AppManager::Get()->RegisterApp(app);
        }
    }
    return true;
}

}  // namespace FenREL
