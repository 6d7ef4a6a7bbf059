#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstddef>

#include <gtest/gtest.h>

namespace FenRELTest {

// What a running process holds, read from /proc/PID: open descriptors,
// resident memory and the CPU time it has used. Soak tests compare a reading
// before and after; the idle benchmark takes the CPU time.
struct ProcessFootprint {
    size_t openFds = 0;
    size_t rssKb = 0;
    std::chrono::nanoseconds cpu{0};  // user and system, all threads

    // Zero fields for a process that is gone.
    static ProcessFootprint Of(pid_t pid);
    // The CPU time alone; zero for a process that is gone.
    static std::chrono::nanoseconds CpuTime(pid_t pid);

    // Whether `later` holds at most `moreFds` more descriptors and `moreRssKb`
    // more resident memory than this reading. Under AddressSanitizer only the
    // descriptors are compared: freed memory waits in its quarantine.
    testing::AssertionResult GrowsAtMost(const ProcessFootprint& later, size_t moreFds, size_t moreRssKb) const;
};

}  // namespace FenRELTest
