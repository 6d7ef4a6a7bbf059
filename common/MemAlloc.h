#pragma once

#include <cstddef>
#include <cstdint>

namespace FenREL {

// Message buffers of the agent are malloc'ed, and a failed allocation ends
// the process: half a protocol state is worse than a restart by the
// supervisor.
class MemAlloc {
public:
    // malloc(size), never null: on failure Failed() ends the process.
    static uint8_t* Buffer(size_t size);
    // realloc, with the same rule.
    static uint8_t* Resize(uint8_t* buffer, size_t size);
    // syslog "FENREL_ALLOC_FAIL : FenREL error: no memory!", flush all
    // streams, exit(1).
    [[noreturn]] static void Failed();
};

}  // namespace FenREL
