#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace DpSim {

using Bytes = std::vector<uint8_t>;

// The framing of the link between the agent and the data-path agent, as the
// data-path agent sees it:
//
//   0       1       2                               6
//   +-------+-------+-------------------------------+-----------------+
//   | flags | type  | length (big-endian, 32 bits)  | LcpDpMsg        |
//   +-------+-------+-------------------------------+-----------------+
//
// `length` counts the header. Types: 1 configuration, L2, sessions, L3 and
// traceflow; 2 firewall; 3 encryption; 4 edge services.
struct DpFrame {
    static constexpr size_t kHeaderSize = 6;

    uint8_t flags = 0;
    uint8_t type = 0;
    uint32_t length = 0;  // as the header says
    Bytes body;

    // Header and body, with `length` computed from the body.
    static Bytes Encode(uint8_t type, const std::string& body, uint8_t flags = 0);
};

// Cuts a byte stream into frames, whatever its splits. A length below the
// header's size is a fault of the sender: the reader stops there for good.
class DpFrameReader {
public:
    void Feed(const uint8_t* data, size_t size);
    // The next whole frame, or nullopt when more bytes are needed (or after
    // a fault).
    std::optional<DpFrame> Next();
    // What went wrong, empty while the stream is sound.
    const std::string& Fault() const { return _fault; }

private:
    Bytes _buffer;
    size_t _offset = 0;
    std::string _fault;
};

}  // namespace DpSim
