#include "FrameReader.h"

namespace CtrlSim {

bool FrameReader::Feed(const uint8_t* data, size_t size, std::vector<Frame>& out)
{
    if (Broken()) {
        return false;
    }
    _pending.insert(_pending.end(), data, data + size);

    size_t offset = 0;
    while (_pending.size() - offset >= FrameHeader::Size) {
        const FrameHeader header = FrameHeader::Parse(&_pending[offset]);
        if (!header.MarkerOk()) {
            _error = "wrong marker " + std::to_string(header.marker[0]) + ":" + std::to_string(header.marker[1]) +
                     ":" + std::to_string(header.marker[2]);
            break;
        }
        if (header.length < FrameHeader::Size) {
            _error = "frame length " + std::to_string(header.length) + " below the header size";
            break;
        }
        if (_pending.size() - offset < header.length) {
            break;
        }
        out.push_back(Frame{header, Bytes(_pending.begin() + offset, _pending.begin() + offset + header.length)});
        offset += header.length;
    }
    _pending.erase(_pending.begin(), _pending.begin() + offset);
    return !Broken();
}

}  // namespace CtrlSim
