#pragma once

#include <array>
#include <string>
#include <vector>

#include "LogFormatter.h"
#include "LogLevel.h"

namespace FenREL {

// One log message: built at the call site, emitted when destroyed.
//
//   FLOG_ERROR("Received bad message on %1: wrong message length %2", key, len)
//       .AddTag("errorCode:LCP00016");
//
// The FLOG_* macros test the level before the object, and so any argument, is
// made: a disabled message costs one integer compare.
class Logger {
public:
    template <typename... Args>
    Logger(int level, const char* format, const Args&... args) : _level(level)
    {
        const std::array<std::string, sizeof...(Args)> argv{{ToLogArg(args)...}};
        _text = LogFormatter::Format(format, argv.data(), argv.size());
    }
    virtual ~Logger();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    // A tag "key:value" becomes key="value" in the structured data; error codes
    // travel as "errorCode:LCPnnnnn".
    Logger& AddTag(const std::string& tag);
    Logger& SetMsgId(const std::string& msgId);
    Logger& SetEntId(const std::string& entId);

    const std::string& GetText() const { return _text; }

private:
    int _level;
    std::string _msgId;
    std::string _entId;
    std::vector<std::string> _tags;
    std::string _text;
};

}  // namespace FenREL

#define FLOG(level, ...)                             \
    if (!::FenREL::LogLevelEnabled(level)) {         \
    } else                                           \
        ::FenREL::Logger(level, __VA_ARGS__)

#define FLOG_PANIC(...) FLOG(::FenREL::LOGLEVEL_PANIC, __VA_ARGS__)
#define FLOG_ERROR(...) FLOG(::FenREL::LOGLEVEL_ERROR, __VA_ARGS__)
#define FLOG_WARNING(...) FLOG(::FenREL::LOGLEVEL_WARNING, __VA_ARGS__)
#define FLOG_INFO(...) FLOG(::FenREL::LOGLEVEL_INFO, __VA_ARGS__)
#define FLOG_VERBOSE(...) FLOG(::FenREL::LOGLEVEL_VERBOSE, __VA_ARGS__)
#define FLOG_TRIVIA(...) FLOG(::FenREL::LOGLEVEL_TRIVIA, __VA_ARGS__)
