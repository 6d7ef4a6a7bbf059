#include "DpFrame.h"

#include <algorithm>

namespace DpSim {

Bytes DpFrame::Encode(uint8_t type, const std::string& body, uint8_t flags)
{
    const uint32_t length = static_cast<uint32_t>(body.size() + kHeaderSize);
    Bytes frame(length);
    frame[0] = flags;
    frame[1] = type;
    frame[2] = static_cast<uint8_t>(length >> 24);
    frame[3] = static_cast<uint8_t>(length >> 16);
    frame[4] = static_cast<uint8_t>(length >> 8);
    frame[5] = static_cast<uint8_t>(length);
    std::copy(body.begin(), body.end(), frame.begin() + kHeaderSize);
    return frame;
}

void DpFrameReader::Feed(const uint8_t* data, size_t size)
{
    if (!_fault.empty()) {
        return;
    }
    // Drop what was consumed before growing the buffer.
    _buffer.erase(_buffer.begin(), _buffer.begin() + static_cast<std::ptrdiff_t>(_offset));
    _offset = 0;
    _buffer.insert(_buffer.end(), data, data + size);
}

std::optional<DpFrame> DpFrameReader::Next()
{
    if (!_fault.empty() || _buffer.size() - _offset < DpFrame::kHeaderSize) {
        return std::nullopt;
    }
    const uint8_t* header = _buffer.data() + _offset;
    DpFrame frame;
    frame.flags = header[0];
    frame.type = header[1];
    frame.length = (static_cast<uint32_t>(header[2]) << 24) | (static_cast<uint32_t>(header[3]) << 16) |
                   (static_cast<uint32_t>(header[4]) << 8) | header[5];
    if (frame.length < DpFrame::kHeaderSize) {
        _fault = "length " + std::to_string(frame.length) + " below the header's 6 bytes";
        return std::nullopt;
    }
    if (_buffer.size() - _offset < frame.length) {
        return std::nullopt;
    }
    frame.body.assign(header + DpFrame::kHeaderSize, header + frame.length);
    _offset += frame.length;
    return frame;
}

}  // namespace DpSim
