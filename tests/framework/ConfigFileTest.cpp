#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "ConfigManager.h"
#include "LogLevel.h"
#include "TempDir.h"

namespace {

using FenREL::ConfigManager;

bool Write(const std::string& name, const std::string& content)
{
    return ConfigManager::ConfigWriteFile(name, content.data(), content.size());
}

TEST(ConfigFileTest, KilledWriterLeavesOldOrNewContent)
{
    FenRELTest::TempDir dir;
    const std::string target = dir.File("controller-info.xml");
    const std::string first = "first\n" + std::string(256 * 1024, 'a');
    const std::string second = "second\n" + std::string(192 * 1024, 'b');
    ASSERT_TRUE(Write(target, first));

    const int savedLevel = FenREL::g_logLevel.load();
    FenREL::g_logLevel = FenREL::LOGLEVEL_NONE;  // the child loops without logging
    std::mt19937 random(20240601);
    int rounds = 0;
    int interrupted = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(1500);
    while (std::chrono::steady_clock::now() < deadline && rounds < 300) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            for (unsigned i = 0;; ++i) {
                Write(target, i % 2 == 0 ? second : first);
            }
        }
        // Not a wait for anything: it picks the moment the writer dies.
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 4000));
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(child, waitpid(child, &status, 0));
        const std::string content = dir.Read("controller-info.xml");
        ASSERT_TRUE(content == first || content == second)
            << "round " << rounds << ": " << content.size() << " bytes, starting " << content.substr(0, 7);
        interrupted += boost::filesystem::exists(target + ".tmp") ? 1 : 0;
        ++rounds;
    }
    FenREL::g_logLevel = savedLevel;
    // Some kills must have landed inside a write, or the test proved nothing.
    EXPECT_GT(interrupted, 0) << rounds << " rounds";
}

TEST(ConfigFileTest, FailedWriteLeavesNoTemporaryFile)
{
    FenRELTest::TempDir dir;
    // The rename fails: the target is a non-empty directory.
    dir.Write("busy/inside", "x");
    EXPECT_FALSE(Write(dir.File("busy"), "new"));
    EXPECT_TRUE(boost::filesystem::is_directory(dir.File("busy")));
    EXPECT_FALSE(boost::filesystem::exists(dir.File("busy.tmp")));
    EXPECT_FALSE(Write(dir.File("absent/file"), "new"));
}

}  // namespace
