#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace FenRELTest {

// A child process (the real `fenrel` binary, or a peer such as rsyslogd) with
// its standard output and error captured to files, so a test can wait for a
// line, send signals and collect the exit status. The destructor kills what
// is still running.
class DaemonProcess {
public:
    DaemonProcess(std::string program, std::vector<std::string> args,
                  std::map<std::string, std::string> env, std::string outputDir);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    // The built `fenrel` binary of this tree.
    static std::string FenrelBinary();

    pid_t Pid() const { return _pid; }
    std::string Stdout() const;
    std::string Stderr() const;

    // Waits until standard output holds `text`.
    testing::AssertionResult WaitForStdout(const std::string& text, std::chrono::milliseconds timeout) const;
    // Counts the occurrences of `text` in standard output.
    size_t CountInStdout(const std::string& text) const;

    void Signal(int signum) const;
    // Waits for the process to end as `how` says, "exit <code>" or
    // "signal <number>"; "" takes any end.
    testing::AssertionResult WaitExit(std::chrono::milliseconds timeout, const std::string& how = "");
    bool IsRunning();

private:
    std::string _stdoutPath;
    std::string _stderrPath;
    pid_t _pid = -1;
    bool _reaped = false;
};

}  // namespace FenRELTest
