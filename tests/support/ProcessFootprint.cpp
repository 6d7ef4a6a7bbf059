#include "ProcessFootprint.h"

#include <dirent.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
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

std::chrono::milliseconds ReadCpu(const std::string& statPath)
{
    std::ifstream in(statPath);
    const std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos) {
        return std::chrono::milliseconds(0);
    }
    // The name may hold spaces; after its ')' come the state (field 3) and
    // the rest, utime and stime being fields 14 and 15, in clock ticks.
    std::istringstream fields(text.substr(nameEnd + 1));
    std::string field;
    unsigned long long ticks = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i >= 14) {
            ticks += std::stoull(field);
        }
    }
    return std::chrono::milliseconds(ticks * 1000 / static_cast<unsigned long long>(sysconf(_SC_CLK_TCK)));
}

}  // namespace

ProcessFootprint ProcessFootprint::Of(pid_t pid)
{
    const std::string proc = "/proc/" + std::to_string(pid);
    ProcessFootprint footprint;
    footprint.openFds = CountEntries(proc + "/fd");
    footprint.rssKb = ReadRssKb(proc + "/status");
    footprint.cpu = ReadCpu(proc + "/stat");
    return footprint;
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
