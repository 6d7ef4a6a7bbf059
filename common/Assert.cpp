#include "Assert.h"

#include <cstdio>
#include <cstdlib>

namespace FenREL {

void AssertFailed(const char* file, int line)
{
    fprintf(stderr, "Panic: ");
    fprintf(stderr, "ASSERT %s:%d\n", file, line);
    fflush(stderr);
    abort();
}

}  // namespace FenREL
