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

// For fuzz harnesses only: when a hook is set, AssertFailed calls it first.
// The harness's hook throws, so that an assertion (an allowed outcome for a
// peer's bytes) ends one input cleanly and lets the fuzzer go on; a hook that
// returns falls back to the panic text and abort. Never set in the agent.
using AssertHook = void (*)(const char* file, int line);
void SetAssertHookForTesting(AssertHook hook);

}  // namespace FenREL
