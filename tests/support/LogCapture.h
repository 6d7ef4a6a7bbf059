#pragma once

#include <string>

#include <gtest/gtest.h>

#include "LogLevel.h"

namespace FenRELTest {

// Collects what the agent logs to the console while it lives, at `level` and
// above; one at a time.
class LogCapture {
public:
    explicit LogCapture(int level = FenREL::LOGLEVEL_TRIVIA)
        : _savedLevel(FenREL::g_logLevel.load()), _savedConsole(FenREL::g_logToConsole.load())
    {
        FenREL::g_logLevel = level;
        FenREL::g_logToConsole = true;
        testing::internal::CaptureStdout();
    }
    ~LogCapture()
    {
        Text();
        FenREL::g_logLevel = _savedLevel;
        FenREL::g_logToConsole = _savedConsole;
    }
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Everything logged so far; ends the capture.
    const std::string& Text()
    {
        if (!_done) {
            _text = testing::internal::GetCapturedStdout();
            _done = true;
        }
        return _text;
    }

private:
    int _savedLevel;
    bool _savedConsole;
    bool _done = false;
    std::string _text;
};

}  // namespace FenRELTest
