#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "Bytes.h"
#include "ccp_lcp_l2.pb.h"

namespace FenRELBench {

// The controller's stream of the throughput run, built before the clock
// starts: `messages` L2 deltas of `itemsPerMessage` VM MACs each (all ADD,
// every MAC distinct), spread round-robin over `vnis` VNIs from `firstVni`.
class L2Stream {
public:
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;

    L2Stream(uint32_t firstVni, uint32_t vnis, size_t messages, size_t itemsPerMessage);

    uint32_t FirstVni() const { return _firstVni; }
    uint32_t Vnis() const { return _vnis; }
    size_t Items() const { return _items; }
    const std::vector<L2UpdateMsg>& Deltas() const { return _deltas; }

    // The deltas as the controller sends them (type 7, protocolID 64, the
    // update after its lead byte), framed with `sessionId` and cut to
    // `frameLimit`, in chunks of about `chunkBytes` for the socket.
    std::vector<CtrlSim::Bytes> ControllerChunks(uint32_t sessionId, size_t frameLimit, size_t chunkBytes) const;
    // The deltas as the data path receives them: each an LcpDpMsg with its
    // 6-byte header, in chunks of about `chunkBytes`.
    std::vector<CtrlSim::Bytes> DataPathChunks(size_t chunkBytes) const;

private:
    uint32_t _firstVni;
    uint32_t _vnis;
    size_t _items = 0;
    std::vector<L2UpdateMsg> _deltas;
};

}  // namespace FenRELBench
