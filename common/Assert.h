#pragma once

// Assertions stay active in every build, including on data a peer sent:
// a contradiction is better ended by the supervisor's restart than carried on.
#define ASSERT(cond)                                   \
    do {                                               \
        if (!(cond)) {                                 \
            ::FenREL::AssertFailed(__FILE__, __LINE__); \
        }                                              \
    } while (0)

namespace FenREL {

// Prints "Panic: " and "ASSERT <file>:<line>" on standard error, then aborts.
[[noreturn]] void AssertFailed(const char* file, int line);

}  // namespace FenREL
