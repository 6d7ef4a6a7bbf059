#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DaemonProcess.h"
#include "MainConfigXml.h"
#include "TempDir.h"
#include "WaitFor.h"

namespace {

using FenRELTest::DaemonProcess;
using FenRELTest::MainConfigXml;
using FenRELTest::TempDir;
using namespace std::chrono_literals;

const std::string kExit255 = "exit 255";
const std::string kAbort = "signal " + std::to_string(SIGABRT);

class StartupTest : public testing::Test {
protected:
    // Starts the daemon on a configuration written under a private root.
    std::unique_ptr<DaemonProcess> Start(const std::string& configXml, std::vector<std::string> extraArgs = {})
    {
        const std::string file = _root.Write("etc/corvid/zun/fenrel.xml", configXml);
        std::vector<std::string> args = {"-c", file};
        args.insert(args.end(), extraArgs.begin(), extraArgs.end());
        return Run(args);
    }
    std::unique_ptr<DaemonProcess> Run(const std::vector<std::string>& args)
    {
        return std::make_unique<DaemonProcess>(DaemonProcess::FenrelBinary(), args,
                                               std::map<std::string, std::string>{{"FENREL_ROOT", _root.Path()}},
                                               _root.Path());
    }
    static MainConfigXml RunnableConfig()
    {
        MainConfigXml config;
        config.apps.push_back({"no-such-app", "false", "", true});
        return config;
    }

    TempDir _root;
};

class UsageTest : public StartupTest, public testing::WithParamInterface<std::vector<std::string>> {};

TEST_P(UsageTest, PrintsUsageAndExits255)
{
    auto daemon = Run(GetParam());
    ASSERT_TRUE(daemon->WaitExit(10s, kExit255));
    // getopt's own complaint may come first; the usage text ends the output.
    const std::string usage = "Usage: " + DaemonProcess::FenrelBinary() + " [-c configFile] [-i instanceID]\n";
    const std::string err = daemon->Stderr();
    ASSERT_GE(err.size(), usage.size());
    EXPECT_EQ(usage, err.substr(err.size() - usage.size()));
}

// "-s" is in the option string but has no case of its own.
INSTANTIATE_TEST_SUITE_P(Options, UsageTest,
                         testing::Values(std::vector<std::string>{"-s"}, std::vector<std::string>{"-x"},
                                         std::vector<std::string>{"-c"}));

TEST_F(StartupTest, UnreadableOrMalformedConfigurationIsReportedAndExits255)
{
    for (const std::string& content : {std::string("<config><fenrel>"), std::string("not xml at all <")}) {
        auto daemon = Start(content);
        ASSERT_TRUE(daemon->WaitExit(10s, kExit255));
        const std::string file = _root.File("etc/corvid/zun/fenrel.xml");
        EXPECT_NE(std::string::npos,
                  daemon->Stdout().find("-----------------------------------\n* Error *: FenREL start failed.\n"
                                        "  Configuration file " + file +
                                        " is invalid!\n-----------------------------------\n"));
        EXPECT_NE(std::string::npos, daemon->Stdout().find("errorCode=\"LCP00003\"] Failed loading config file: "));
    }
    auto missing = Run({"-c", _root.File("nowhere.xml")});
    ASSERT_TRUE(missing->WaitExit(10s, kExit255));
    EXPECT_NE(std::string::npos, missing->Stdout().find(" is invalid!"));
}

TEST_F(StartupTest, MissingRequiredSubtreeEndsThroughTheUncaughtException)
{
    MainConfigXml noApps;
    noApps.withApps = false;
    MainConfigXml disabledWithoutConfig;
    disabledWithoutConfig.apps.push_back({"config", "false", "", false});
    for (const MainConfigXml& config : {noApps, disabledWithoutConfig}) {
        auto daemon = Start(config.ToXml());
        ASSERT_TRUE(daemon->WaitExit(10s, kAbort));
        EXPECT_NE(std::string::npos, daemon->Stderr().find("No such node")) << daemon->Stderr();
        EXPECT_EQ(std::string::npos, daemon->Stdout().find("is invalid!"));
    }
}

TEST_F(StartupTest, ThreadCountsBelowOneOrNotNumbersPanic)
{
    for (auto counts : {std::make_pair("0", "4"), std::make_pair("2", "0"), std::make_pair("-3", "4"),
                        std::make_pair("two", "4"), std::make_pair("2", "8x")}) {
        MainConfigXml config = RunnableConfig();
        config.ioThreads = counts.first;
        config.workThreads = counts.second;
        auto daemon = Start(config.ToXml());
        ASSERT_TRUE(daemon->WaitExit(10s, kAbort));
        EXPECT_NE(std::string::npos, daemon->Stderr().find("Panic: ASSERT src/zunChannel/Configuration.cpp:"))
            << daemon->Stderr();
    }
}

TEST_F(StartupTest, EmptyApplicationListFailsTheStart)
{
    MainConfigXml config;
    auto daemon = Start(config.ToXml());
    ASSERT_TRUE(daemon->WaitExit(10s, kExit255));
    EXPECT_NE(std::string::npos, daemon->Stdout().find("No App configured"));
    EXPECT_NE(std::string::npos,
              daemon->Stdout().find("errorCode=\"LCP00014\"] Got error when initializing net applications"));
}

TEST_F(StartupTest, ListWithoutEnabledEntriesStillStarts)
{
    MainConfigXml config;
    config.apps.push_back({"config", "false", "", true});
    config.apps.push_back({"session", "", "", true});  // no <enabled>: skipped
    config.apps.push_back({"unknown", "true", "", true});
    auto daemon = Start(config.ToXml());
    EXPECT_TRUE(daemon->WaitForStdout("Fenrel daemon is looping...", 10s));
    EXPECT_NE(std::string::npos, daemon->Stdout().find("App count: 3"));
    EXPECT_EQ(std::string::npos, daemon->Stdout().find("register app"));
}

TEST_F(StartupTest, SignalsDumpAndTheLoopGoesOn)
{
    MainConfigXml config = RunnableConfig();
    auto daemon = Start(config.ToXml());
    ASSERT_TRUE(daemon->WaitForStdout("Fenrel daemon is looping...", 10s));

    daemon->Signal(SIGUSR1);
    EXPECT_TRUE(daemon->WaitForStdout("Start support dump, received signal 10", 10s));
    EXPECT_TRUE(daemon->WaitForStdout("] " + std::string(82, '='), 10s));
    EXPECT_TRUE(daemon->WaitForStdout("No fenrel/support in configuration file", 10s));

    daemon->Signal(SIGTSTP);
    EXPECT_TRUE(daemon->WaitForStdout("Fenrel received DumpCache signal, start DumpCache.", 10s));
    for (const char* header : {"Fenrel Dump local ConfigCacheTable.", "Fenrel Dump remote ConfigCacheTable.",
                               "Fenrel Dump local L2CacheTable.", "Fenrel Dump remote L2CacheTable.",
                               "Fenrel Dump remote session CacheTable."}) {
        EXPECT_TRUE(daemon->WaitForStdout(header, 10s));
    }
    // SIGPIPE is ignored, and each handled signal brings the loop round again.
    daemon->Signal(SIGPIPE);
    EXPECT_TRUE(FenRELTest::WaitFor([&] { return daemon->CountInStdout("Fenrel daemon is looping...") >= 3; },
                                    10s, "the main loop to turn once per handled signal"));
    EXPECT_TRUE(daemon->IsRunning());

    // Only a signal's default action ends the daemon.
    daemon->Signal(SIGTERM);
    EXPECT_TRUE(daemon->WaitExit(10s, "signal " + std::to_string(SIGTERM)));
}

TEST_F(StartupTest, SupportSubtreeSilencesItsNotice)
{
    MainConfigXml config = RunnableConfig();
    config.withSupport = true;
    config.logLevel = 6;
    auto daemon = Start(config.ToXml());
    ASSERT_TRUE(daemon->WaitForStdout("Fenrel daemon is looping...", 10s));
    daemon->Signal(SIGUSR1);
    // The event is posted after the notice would have been logged.
    ASSERT_TRUE(daemon->WaitForStdout("AppManager::PostEvent(Event(Category=2, IsAllApp=true))", 10s));
    EXPECT_EQ(std::string::npos, daemon->Stdout().find("No fenrel/support in configuration file"));
}

}  // namespace
