#include "Startup.h"

#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <vector>

#include <boost/thread/thread.hpp>

#include "AppFactory.h"
#include "AppManager.h"
#include "CPDomainManager.h"
#include "ChannelCore.h"
#include "ConfigManager.h"
#include "Configuration.h"
#include "DPPlatform.h"
#include "IOWorker.h"
#include "IoService.h"
#include "Logger.h"
#include "MainConfig.h"
#include "SessionApp.h"
#include "ShardingMgr.h"
#include "StateCache.h"
#include "SignalHandlers.h"
#include "WorkGroup.h"
#include "WorkItemImpl.h"

namespace FenREL {

namespace {

std::vector<boost::intrusive_ptr<ZUNChannel::IOWorker>> s_ioWorkers;

// A thread count from the main configuration: `fallback` when the key is
// absent, and 0 (refused like any count below 1) when its text is not a number,
// so that a typo stops the start instead of quietly becoming the default.
int ThreadCount(const boost::property_tree::ptree& tree, const char* path, int fallback)
{
    const boost::optional<const boost::property_tree::ptree&> node = tree.get_child_optional(path);
    if (!node) {
        return fallback;
    }
    return node->get_value_optional<int>().value_or(0);
}

}  // namespace

bool Startup::ParseOptions(int argc, char** argv)
{
    int option;
    // "s" is admitted by the option string but has no case: it prints the usage.
    while ((option = getopt(argc, argv, "sc:i:")) != -1) {
        switch (option) {
        case 'c':
            MainConfig::SetFileName(optarg);
            break;
        case 'i':
            MainConfig::SetInstanceId(static_cast<uint32_t>(strtol(optarg, nullptr, 10)));
            break;
        default:
            fprintf(stderr, "Usage: %s [-c configFile] [-i instanceID]%s%s\n", argv[0], "", "");
            return false;
        }
    }
    return true;
}

void Startup::ApplyMainConfig()
{
    const boost::property_tree::ptree& tree = MainConfig::Tree();
    const int ioThreads = ThreadCount(tree, "config.fenrel.workGroup.ioThreads",
                                      static_cast<int>(boost::thread::hardware_concurrency()));
    const int workThreads = ThreadCount(tree, "config.fenrel.workGroup.workThreads", 32);
    // Counts below 1 are refused by the configuration module's assertion.
    ZUNChannel::Configuration::SetThreads(static_cast<uint32_t>(std::max(ioThreads, 0)),
                                          static_cast<uint32_t>(std::max(workThreads, 0)));
    g_logLevel = tree.get<int>("config.log.level", LOGLEVEL_INFO);
    g_logToConsole = tree.get<bool>("config.log.outputToConsole", true);
    g_dumpConfigUpdateToLog = tree.get<bool>("config.log.dumpConfigUpdateToLog", false);
}

void Startup::StartChannelCore()
{
    uint32_t ioThreads = 0;
    uint32_t workThreads = 0;
    ZUNChannel::Configuration::GetThreads(ioThreads, workThreads);
    ZUNChannel::WorkGroup::Get().Start(workThreads);
    for (uint32_t i = 0; i < ioThreads; ++i) {
        boost::intrusive_ptr<ZUNChannel::IOWorker> worker(new ZUNChannel::IOWorker());
        s_ioWorkers.push_back(worker);
        ZUNChannel::WorkGroup::Get().Post(
            std::make_shared<ZUNChannel::WorkItemImpl<ZUNChannel::IOWorker>>(worker,
                                                                            &ZUNChannel::IOWorker::Run));
    }
    ZUNChannel::ChannelCore::Create();
}

void Startup::StopChannelCore()
{
    // A running IOWorker's work item still holds it, and with it a work guard:
    // the service is stopped before the pool is joined, or the join would wait
    // for ever.
    ZUNChannel::ShardingMgr::Destroy();
    s_ioWorkers.clear();
    ZUNChannel::IoService::Get()->stop();
    ZUNChannel::WorkGroup::Get().Stop();
}

void Startup::LoadControllers()
{
    boost::intrusive_ptr<ConfigManager> manager = ConfigManager::Get();
    if (ZUNChannel::AppManager::Get()->FindApp(ZUNChannel::APP_ID_SESSION, 0)) {
        manager->SetControllerListListener([](const std::vector<ZUNChannel::ConnConfig>& list) {
            SessionApp::Instance()->ReceiveControllerList(list);
        });
    }
    manager->ConfigLoad();
    manager->ApplyToChannel();
}

void Startup::MainLoop()
{
    signal(SIGPIPE, SIG_IGN);
    sigset_t block;
    sigset_t old;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigprocmask(SIG_BLOCK, &block, &old);
    for (;;) {
        FLOG_INFO("Fenrel daemon is looping...");
        sigsuspend(&old);
    }
}

int Startup::Run(int argc, char** argv)
{
    if (!ParseOptions(argc, argv)) {
        return -1;
    }
    SignalHandlers::InstallPipeAndSupport();
    SignalHandlers::InstallSegv();
    if (!MainConfig::Load()) {
        return -1;
    }
    ApplyMainConfig();
    openlog("fenrel", LOG_PID, LOG_DAEMON);
    setlogmask(255);

    StartChannelCore();
    StateCache::Init();

    if (!AppFactory::CreateApps(MainConfig::Tree())) {
        FLOG_ERROR("Got error when initializing net applications").AddTag("errorCode:LCP00014");
        StopChannelCore();
        return -1;
    }

    ConfigManager::Init(MainConfig::FileName());
    CPDomainManager::Create()->Start(ZUNChannel::AppManager::Get());

    FLOG_VERBOSE("Init platform");
    DPPlatform::Init(MainConfig::Tree());
    FLOG_VERBOSE("Done init platform");
    FLOG_VERBOSE("start pigeon");

    ZUNChannel::AppManager::Get()->StartAll();
    LoadControllers();

    SignalHandlers::InstallCacheDump();
    MainLoop();
}

}  // namespace FenREL
