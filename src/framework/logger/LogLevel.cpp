#include "LogLevel.h"

namespace FenREL {

std::atomic<int> g_logLevel{LOGLEVEL_INFO};
std::atomic<bool> g_logToConsole{true};
std::atomic<bool> g_dumpConfigUpdateToLog{false};

namespace {
const char* const kLevelNames[] = {"none", "panic", "error", "warning", "info", "verbose", "trivia"};
constexpr int kLevelCount = sizeof(kLevelNames) / sizeof(kLevelNames[0]);
}  // namespace

const char* LogLevelName(int level)
{
    return (level >= 0 && level < kLevelCount) ? kLevelNames[level] : "";
}

bool SetLogLevelByName(const std::string& name)
{
    for (int level = 0; level < kLevelCount; ++level) {
        if (name == kLevelNames[level]) {
            g_logLevel.store(level, std::memory_order_relaxed);
            return true;
        }
    }
    return false;
}

std::string GetLogLevelName()
{
    return LogLevelName(g_logLevel.load(std::memory_order_relaxed));
}

}  // namespace FenREL
