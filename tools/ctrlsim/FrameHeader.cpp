#include "FrameHeader.h"

#include <cstdio>

#include "Bytes.h"

namespace CtrlSim {

FrameHeader FrameHeader::Parse(const uint8_t* bytes)
{
    FrameHeader header;
    header.version = bytes[0];
    header.marker[0] = bytes[1];
    header.marker[1] = bytes[2];
    header.marker[2] = bytes[3];
    header.flags = bytes[4];
    header.sessionId = Read32(bytes + 5);
    header.type = Read16(bytes + 9);
    header.length = Read16(bytes + 11);
    header.protocolId = Read16(bytes + 13);
    return header;
}

void FrameHeader::Write(uint8_t* out) const
{
    out[0] = version;
    out[1] = marker[0];
    out[2] = marker[1];
    out[3] = marker[2];
    out[4] = flags;
    Write32(out + 5, sessionId);
    Write16(out + 9, type);
    Write16(out + 11, length);
    Write16(out + 13, protocolId);
}

bool FrameHeader::MarkerOk() const
{
    return marker[0] == 0xBA && marker[1] == 0xDB && marker[2] == 0xEE;
}

std::string FrameHeader::ToString() const
{
    char text[96];
    snprintf(text, sizeof(text), "v%u flags 0x%02x session 0x%08x type %u len %u proto %u", version, flags,
             sessionId, type, length, protocolId);
    return text;
}

}  // namespace CtrlSim
