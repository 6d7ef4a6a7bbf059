#pragma once

#include <atomic>
#include <string>

namespace FenREL {

enum LogLevel {
    LOGLEVEL_NONE = 0,
    LOGLEVEL_PANIC = 1,
    LOGLEVEL_ERROR = 2,
    LOGLEVEL_WARNING = 3,
    LOGLEVEL_INFO = 4,
    LOGLEVEL_VERBOSE = 5,
    LOGLEVEL_TRIVIA = 6,
};

// The current level, `config.log.level`. Read at every log call site before
// anything is formatted; a relaxed load is a plain integer load, and races
// with a level change are accepted.
extern std::atomic<int> g_logLevel;
// `config.log.outputToConsole` and `config.log.dumpConfigUpdateToLog`.
extern std::atomic<bool> g_logToConsole;
extern std::atomic<bool> g_dumpConfigUpdateToLog;

inline bool LogLevelEnabled(int level)
{
    return g_logLevel.load(std::memory_order_relaxed) >= level;
}

// Takes one of "none", "panic", "error", "warning", "info", "verbose",
// "trivia"; false for anything else.
bool SetLogLevelByName(const std::string& name);
std::string GetLogLevelName();
// The name of a level, or "" outside 0..6.
const char* LogLevelName(int level);

}  // namespace FenREL
