#include "ProcessFootprint.h"

#include <dirent.h>
#include <time.h>

#include <fstream>
#include <string>

// Under AddressSanitizer freed memory waits in quarantine, so resident memory
// grows without a leak; there the sanitizer's own leak check stands in for the
// bound. The daemon is built with the same flags as this library.
#if defined(__SANITIZE_ADDRESS__)
#define FENREL_UNDER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define FENREL_UNDER_ASAN 1
#endif
#endif
#ifndef FENREL_UNDER_ASAN
#define FENREL_UNDER_ASAN 0
#endif

namespace FenRELTest {

namespace {

size_t CountEntries(const std::string& dirPath)
{
    size_t count = 0;
    DIR* dir = opendir(dirPath.c_str());
    if (dir == nullptr) {
        return 0;
    }
    while (const dirent* entry = readdir(dir)) {
        const std::string name = entry->d_name;
        count += name != "." && name != "..";
    }
    closedir(dir);
    return count;
}

size_t ReadRssKb(const std::string& statusPath)
{
    std::ifstream status(statusPath);
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stoul(line.substr(6));
        }
    }
    return 0;
}

}  // namespace

ProcessFootprint ProcessFootprint::Of(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    ProcessFootprint footprint;
    footprint.openFds = CountEntries(proc + "/fd");
    footprint.rssKb = ReadRssKb(proc + "/status");
    footprint.cpu = CpuTime(pid);
    return footprint;
}

std::chrono::nanoseconds ProcessFootprint::CpuTime(pid_t pid)
{
    // The process's CPU clock counts in nanoseconds, /proc/PID/stat in ticks.
    clockid_t clock;
    timespec cpu{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &cpu) != 0) {
        return std::chrono::nanoseconds(0);
    }
    return std::chrono::seconds(cpu.tv_sec) + std::chrono::nanoseconds(cpu.tv_nsec);
}

testing::AssertionResult ProcessFootprint::GrowsAtMost(const ProcessFootprint& later, size_t moreFds, size_t moreRssKb) const
{
    const std::string figures = "descriptors " + std::to_string(openFds) + " -> " + std::to_string(later.openFds) +
                                ", RSS " + std::to_string(rssKb) + " kB -> " + std::to_string(later.rssKb) + " kB";
    if (later.openFds > openFds + moreFds) {
        return testing::AssertionFailure() << "more than " << moreFds << " descriptors more: " << figures;
    }
    if (!FENREL_UNDER_ASAN && later.rssKb > rssKb + moreRssKb) {
        return testing::AssertionFailure() << "more than " << moreRssKb << " kB of resident memory more: " << figures;
    }
    return testing::AssertionSuccess() << figures;
}

}  // namespace FenRELTest
