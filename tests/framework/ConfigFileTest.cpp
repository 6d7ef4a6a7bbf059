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

// A writer killed at any moment leaves the old or the new content, never a mix
// or a truncated file.
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

TEST(ConfigFileTest, FailedWriteLeavesTheTargetAndNoTemporaryFile)
{
    FenRELTest::TempDir dir;
    // The rename fails: the target is a non-empty directory.
    dir.Write("busy/inside", "x");
    EXPECT_FALSE(Write(dir.File("busy"), "new"));
    EXPECT_TRUE(boost::filesystem::is_directory(dir.File("busy")));
    EXPECT_FALSE(boost::filesystem::exists(dir.File("busy.tmp")));
    // The temporary file cannot be made.
    EXPECT_FALSE(Write(dir.File("absent/file"), "new"));
    EXPECT_FALSE(Write("", "new"));

    const std::string target = dir.Write("kept", "old");
    EXPECT_TRUE(Write(target, "new content"));
    EXPECT_EQ("new content", dir.Read("kept"));
}

TEST(ConfigFileTest, ReadGivesAtMostTheBufferSize)
{
    FenRELTest::TempDir dir;
    const std::string file = dir.Write("f", "0123456789");
    char buffer[16] = {};
    size_t size = 4;
    ASSERT_TRUE(ConfigManager::ConfigReadFile(file, buffer, &size));
    EXPECT_EQ("0123", std::string(buffer, size));
    size = sizeof(buffer);
    ASSERT_TRUE(ConfigManager::ConfigReadFile(file, buffer, &size));
    EXPECT_EQ("0123456789", std::string(buffer, size));

    const int savedLevel = FenREL::g_logLevel.load();
    const bool savedConsole = FenREL::g_logToConsole.load();
    FenREL::g_logLevel = FenREL::LOGLEVEL_VERBOSE;
    FenREL::g_logToConsole = true;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(ConfigManager::ConfigReadFile(dir.File("absent"), buffer, &size));
    const std::string log = testing::internal::GetCapturedStdout();
    FenREL::g_logLevel = savedLevel;
    FenREL::g_logToConsole = savedConsole;
    EXPECT_NE(std::string::npos, log.find("File " + dir.File("absent") + " does not exist"));
}

}  // namespace
