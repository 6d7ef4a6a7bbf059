#include "SignalHandlers.h"

#include <execinfo.h>
#include <syslog.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "AppManager.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MainConfig.h"
#include "StateCache.h"
#include "SupportEvent.h"

namespace FenREL {

namespace {

constexpr int kMaxBacktraceFrames = 64;

// SA_RESTART, and every signal but SIGABRT (and `alsoAllowed`) blocked while
// the handler runs.
bool Install(int signum, void (*handler)(int), int alsoAllowed)
{
    struct sigaction action;
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    sigfillset(&action.sa_mask);
    sigdelset(&action.sa_mask, SIGABRT);
    if (alsoAllowed != 0) {
        sigdelset(&action.sa_mask, alsoAllowed);
    }
    return sigaction(signum, &action, nullptr) == 0;
}

}  // namespace

void SignalHandlers::InstallPipeAndSupport()
{
    if (!Install(SIGPIPE, SIG_IGN, 0)) {
        FLOG_WARNING("Failed to register SIGPIPE handler");
    }
    if (!Install(SIGUSR1, &SignalHandlers::OnSupportSignal, SIGUSR1)) {
        FLOG_WARNING("Failed to register SIGUSR1 handler");
    }
}

void SignalHandlers::InstallSegv()
{
    signal(SIGSEGV, &SignalHandlers::OnSegv);
}

void SignalHandlers::InstallCacheDump()
{
    signal(SIGTSTP, &SignalHandlers::OnCacheDumpSignal);
}

void SignalHandlers::OnSupportSignal(int signum)
{
    if (signum != SIGUSR1) {
        FLOG_WARNING("Ignoring signal %1", signum);
        return;
    }
    FLOG_VERBOSE("\n\n\n\n\n\n\n\n\n\n");
    FLOG_VERBOSE("Start support dump, received signal %1", signum);
    FLOG_VERBOSE("%1", std::string(82, '='));
    if (!MainConfig::Tree().get_child_optional("config.fenrel.support")) {
        FLOG_VERBOSE("No fenrel/support in configuration file");
    }
    ZUNChannel::GlobalLockGuard lock;
    boost::intrusive_ptr<ZUNChannel::Event> event(new ZUNChannel::SupportEvent());
    ZUNChannel::AppManager::Get()->PostEvent(event);
}

void SignalHandlers::OnCacheDumpSignal(int /*signum*/)
{
    FLOG_INFO("Fenrel received DumpCache signal, start DumpCache.");
    StateCache::GetInstance()->DumpCache();
}

void SignalHandlers::OnSegv(int signum)
{
    static const char kText[] = "Fenrel encountered a segmentation fault!!!";
    fprintf(stderr, "%s\n", kText);
    signal(signum, SIG_DFL);
    syslog(LOG_ERR, "%s", kText);
    void* frames[kMaxBacktraceFrames];
    const int count = backtrace(frames, kMaxBacktraceFrames);
    char** symbols = backtrace_symbols(frames, count);
    if (symbols != nullptr) {
        for (int i = 0; i < count; ++i) {
            syslog(LOG_ERR, "[%u] %s", static_cast<unsigned>(i), symbols[i]);
        }
        for (int i = 0; i < count; ++i) {
            fprintf(stderr, "[%u] %s\n", static_cast<unsigned>(i), symbols[i]);
        }
        free(symbols);
    }
    // Returning re-runs the faulting instruction, which now kills the process
    // by the default action.
}

}  // namespace FenREL
