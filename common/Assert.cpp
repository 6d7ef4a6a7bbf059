#include "Assert.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace FenREL {

namespace {
std::atomic<AssertHook> s_hook{nullptr};
}  // namespace

void SetAssertHookForTesting(AssertHook hook)
{
    s_hook.store(hook);
}

void AssertFailed(const char* file, int line)
{
    if (const AssertHook hook = s_hook.load()) {
        hook(file, line);
    }
    fprintf(stderr, "Panic: ");
    fprintf(stderr, "ASSERT %s:%d\n", file, line);
    fflush(stderr);
    abort();
}

}  // namespace FenREL
