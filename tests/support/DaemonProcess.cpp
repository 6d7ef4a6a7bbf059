#include "DaemonProcess.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "WaitFor.h"

namespace FenRELTest {

namespace {

std::string ReadAll(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace

std::string DaemonProcess::FenrelBinary()
{
    // The build tree this test binary belongs to, unless the environment
    // points elsewhere (an installed or relocated tree).
    const char* dir = getenv("FENREL_BINARY_DIR");
    return std::string(dir != nullptr ? dir : FENREL_BUILD_DIR) + "/src/framework/startup/fenrel";
}

DaemonProcess::DaemonProcess(std::string program, std::vector<std::string> args,
                             std::map<std::string, std::string> env, std::string outputDir)
{
    static int s_counter = 0;
    const std::string stem = outputDir + "/proc" + std::to_string(++s_counter);
    _stdoutPath = stem + ".out";
    _stderrPath = stem + ".err";

    std::vector<std::string> argvStrings;
    argvStrings.push_back(program);
    argvStrings.insert(argvStrings.end(), args.begin(), args.end());

    _pid = fork();
    if (_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (_pid == 0) {
        setpgid(0, 0);
        const int out = open(_stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = open(_stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        for (const auto& entry : env) {
            setenv(entry.first.c_str(), entry.second.c_str(), 1);
        }
        std::vector<char*> argv;
        for (std::string& arg : argvStrings) {
            argv.push_back(&arg[0]);
        }
        argv.push_back(nullptr);
        execv(program.c_str(), argv.data());
        _exit(127);
    }
}

DaemonProcess::~DaemonProcess()
{
    if (IsRunning()) {
        kill(_pid, SIGKILL);
        int status = 0;
        waitpid(_pid, &status, 0);
    }
}

std::string DaemonProcess::Stdout() const
{
    return ReadAll(_stdoutPath);
}

std::string DaemonProcess::Stderr() const
{
    return ReadAll(_stderrPath);
}

testing::AssertionResult DaemonProcess::WaitForStdout(const std::string& text,
                                                      std::chrono::milliseconds timeout) const
{
    return WaitFor([&] { return Stdout().find(text) != std::string::npos; }, timeout,
                   "\"" + text + "\" on standard output", [&] { return Stdout() + Stderr(); });
}

size_t DaemonProcess::CountInStdout(const std::string& text) const
{
    const std::string out = Stdout();
    size_t count = 0;
    for (size_t pos = out.find(text); pos != std::string::npos; pos = out.find(text, pos + text.size())) {
        ++count;
    }
    return count;
}

void DaemonProcess::Signal(int signum) const
{
    kill(_pid, signum);
}

testing::AssertionResult DaemonProcess::WaitExit(std::chrono::milliseconds timeout, const std::string& how)
{
    int status = 0;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (waitpid(_pid, &status, WNOHANG) != _pid) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return testing::AssertionFailure() << "process " << _pid << " still running after " << timeout.count()
                                               << " ms; stderr: " << Stderr();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    _reaped = true;
    const std::string ended = WIFEXITED(status) ? "exit " + std::to_string(WEXITSTATUS(status))
                                                : "signal " + std::to_string(WTERMSIG(status));
    if (!how.empty() && ended != how) {
        return testing::AssertionFailure() << "process " << _pid << " ended by " << ended << ", not " << how
                                           << "; stderr: " << Stderr();
    }
    return testing::AssertionSuccess();
}

bool DaemonProcess::IsRunning()
{
    if (_reaped || _pid <= 0) {
        return false;
    }
    int status = 0;
    if (waitpid(_pid, &status, WNOHANG) == _pid) {
        _reaped = true;
        return false;
    }
    return true;
}

}  // namespace FenRELTest
