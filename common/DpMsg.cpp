#include "DpMsg.h"

#include <cstring>

#include "Assert.h"
#include "TlvCommon.h"

namespace FenREL {

uint32_t DpMsgHdr::GetLength(const uint8_t* hdr)
{
    const uint32_t length = TlvCommon::GetBe32(hdr + 2);
    // Shorter than its own header: the peer and we have lost the framing.
    ASSERT(length >= kSize);
    return length;
}

void DpMsgHdr::Init(uint8_t* hdr, uint8_t type, uint32_t length)
{
    // A message that cannot hold its own header is a fault of the sender.
    ASSERT(length >= kSize);
    memset(hdr, 0, kSize);
    hdr[1] = type;
    TlvCommon::PutBe32(hdr + 2, length);
}

}  // namespace FenREL
