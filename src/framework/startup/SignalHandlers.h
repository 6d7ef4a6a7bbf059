#pragma once

namespace FenREL {

// The daemon's signals: SIGPIPE ignored, SIGUSR1 support dump, SIGSEGV
// backtrace, SIGTSTP dump of the caches. SIGUSR1 and SIGTSTP do their work
// inside the handler, on whatever thread the kernel picked.
class SignalHandlers {
public:
    static void InstallPipeAndSupport();
    static void InstallSegv();
    static void InstallCacheDump();

    static void OnSupportSignal(int signum);
    static void OnCacheDumpSignal(int signum);
    static void OnSegv(int signum);
};

}  // namespace FenREL
