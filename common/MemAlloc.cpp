#include "MemAlloc.h"

#include <syslog.h>

#include <cstdio>
#include <cstdlib>

namespace FenREL {

uint8_t* MemAlloc::Buffer(size_t size)
{
    auto* buffer = static_cast<uint8_t*>(malloc(size == 0 ? 1 : size));
    if (buffer == nullptr) {
        Failed();
    }
    return buffer;
}

uint8_t* MemAlloc::Resize(uint8_t* buffer, size_t size)
{
    auto* resized = static_cast<uint8_t*>(realloc(buffer, size == 0 ? 1 : size));
    if (resized == nullptr) {
        Failed();
    }
    return resized;
}

void MemAlloc::Failed()
{
    syslog(LOG_ERR, "FENREL_ALLOC_FAIL : FenREL error: no memory!");
    fflush(nullptr);
    exit(1);
}

}  // namespace FenREL
