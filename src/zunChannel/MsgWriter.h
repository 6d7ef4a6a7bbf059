#pragma once

#include <cstdint>

#include "RefCounter.h"

namespace ZUNChannel {

// Where a MsgScheduler hands its frames: the controller connection (a fake in
// tests). The scheduler holds its writer by intrusive pointer until its Stop,
// so a writer that holds its scheduler forms a cycle that Stop breaks.
class MsgWriter : public RefCounter<MsgWriter> {
public:
    ~MsgWriter() override = default;

    // Takes the frame `buffer` of `size` bytes in every case (a refused frame
    // is freed by the writer). True when the write was started; the writer
    // then sets the scheduler's transmit flag until the write completes.
    // Called by the scheduler's Kick, under the global lock.
    virtual bool WriteMsg(uint8_t* buffer, uint32_t size) = 0;
};

}  // namespace ZUNChannel
