#pragma once

#include <cstddef>
#include <cstdint>

namespace FenREL {

// The framing of the link between the agent and the data-path agent, in both
// directions. Each message is a six-byte header and a serialised LcpDpMsg:
//
//   0       1       2                               6
//   +-------+-------+-------------------------------+------------------+
//   | flags | type  | length (big-endian, 32 bits)  | body             |
//   +-------+-------+-------------------------------+------------------+
//
// `length` counts the whole message, header included. `flags` is 0 from the
// agent and ignored on receipt. `type` says which part of an LcpDpMsg the
// body carries (DpMsgHdrType).
//
// The accessors work on the bytes in place. A length below the header's own
// size is an assertion, on reading and on writing alike: on this link it
// means the two ends no longer agree on the stream, and the supervisor's
// restart is the only sound way out.
class DpMsgHdr {
public:
    static constexpr uint32_t kSize = 6;

    enum DpMsgHdrType : uint8_t {
        DP_MSG_HDR_GENERIC = 1,  // configuration, L2, sessions, L3, traceflow
        DP_MSG_HDR_DFW = 2,      // dfw_update
        DP_MSG_HDR_DNE = 3,      // dne_update
        DP_MSG_HDR_SERVICE = 4,  // service_update
    };

    static uint8_t GetFlags(const uint8_t* hdr) { return hdr[0]; }
    static uint8_t GetType(const uint8_t* hdr) { return hdr[1]; }
    // The length field; asserts that it is at least kSize.
    static uint32_t GetLength(const uint8_t* hdr);

    // Writes a header for a message of `length` bytes in all, flags zero (so
    // bit 7, the only named flag, is clear). Asserts that `length` is at least
    // kSize.
    static void Init(uint8_t* hdr, uint8_t type, uint32_t length);
};

}  // namespace FenREL
