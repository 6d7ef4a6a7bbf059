#include "FuzzSupport.h"

#include <cstdio>
#include <cstdlib>

#include "Assert.h"

namespace FenRELTest {

namespace {

void ThrowFuzzAssertion(const char* file, int line)
{
    throw FuzzAssertion{file, line};
}

}  // namespace

void InstallFuzzAssertHook()
{
    FenREL::SetAssertHookForTesting(&ThrowFuzzAssertion);
}

void FuzzCheck(bool ok, const char* what, const char* file, int line)
{
    if (!ok) {
        fprintf(stderr, "fuzz check failed: %s at %s:%d\n", what, file, line);
        fflush(stderr);
        abort();
    }
}

}  // namespace FenRELTest
