#include <fcntl.h>
#include <unistd.h>

#include <cstdio>

#include <benchmark/benchmark.h>

#include "LogLevel.h"
#include "Logger.h"

namespace {

// An argument that counts how often it is formatted.
struct CountedArg {
    static long formatted;
};
long CountedArg::formatted = 0;

std::string ToLogArg(const CountedArg&)
{
    ++CountedArg::formatted;
    return "counted";
}

// A disabled level: one integer compare, and no argument formatted.
void BM_DisabledLogCall(benchmark::State& state)
{
    FenREL::g_logLevel = FenREL::LOGLEVEL_INFO;
    CountedArg::formatted = 0;
    const CountedArg arg;
    for (auto _ : state) {
        FLOG_VERBOSE("connection %1 is %2", arg, 42);
        benchmark::ClobberMemory();
    }
    state.counters["formatted"] = static_cast<double>(CountedArg::formatted);
}
BENCHMARK(BM_DisabledLogCall);

// An enabled line to the console (standard output sent to /dev/null), and
// to the C library's syslog, as the daemon does by default.
void BM_EnabledConsoleLine(benchmark::State& state)
{
    FenREL::g_logLevel = FenREL::LOGLEVEL_INFO;
    FenREL::g_logToConsole = true;
    fflush(stdout);
    const int saved = dup(STDOUT_FILENO);
    const int null = open("/dev/null", O_WRONLY);
    dup2(null, STDOUT_FILENO);
    for (auto _ : state) {
        FLOG_INFO("connection %1 is %2", "10.0.0.1:0", 42).AddTag("errorCode:LCP00016");
    }
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(null);
    close(saved);
}
BENCHMARK(BM_EnabledConsoleLine);

}  // namespace
