#include "SelfSignedCert.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <vector>

namespace CtrlSim {

namespace {

std::string ReadFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

// Runs `argv` with its output going to `logFile`; returns the wait status.
int RunCommand(std::vector<std::string> argv, const std::string& logFile)
{
    std::vector<char*> args;
    for (std::string& arg : argv) {
        args.push_back(&arg[0]);
    }
    args.push_back(nullptr);
    const pid_t pid = fork();
    if (pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (pid == 0) {
        const int log = open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (log >= 0) {
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
        }
        execvp(args[0], args.data());
        _exit(127);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) {
            throw std::runtime_error("waitpid failed");
        }
    }
    return status;
}

}  // namespace

SelfSignedCert SelfSignedCert::Make(const std::string& dir, const std::string& name)
{
    SelfSignedCert cert;
    cert.keyFile = dir + "/" + name + "-key.pem";
    cert.certFile = dir + "/" + name + "-cert.pem";
    const std::string logFile = dir + "/" + name + "-openssl.log";
    const int status = RunCommand({"openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "1",
                                   "-subj", "/CN=" + name, "-keyout", cert.keyFile, "-out", cert.certFile},
                                  logFile);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error("openssl could not make the certificate of " + name + ": " + ReadFile(logFile));
    }
    unlink(logFile.c_str());
    cert.certPem = ReadFile(cert.certFile);
    return cert;
}

}  // namespace CtrlSim
