#include "L2Stream.h"

#include "DpFrame.h"
#include "L2Handler.h"
#include "MessageWriter.h"
#include "lcp_dp.pb.h"

namespace FenRELBench {

namespace {

namespace l2 = com::corvid::zun::l2;

// The byte in front of an update on the L2 channel.
constexpr uint8_t kUpdateLeadByte = 0x00;
// The data path's message type of configuration, L2 and sessions.
constexpr uint8_t kDpConfigType = 1;

// Appends `frame` to the last chunk, or starts a new one when that is full.
void AddToChunks(std::vector<CtrlSim::Bytes>& chunks, const CtrlSim::Bytes& frame, size_t chunkBytes)
{
    if (chunks.empty() || chunks.back().size() + frame.size() > chunkBytes) {
        chunks.emplace_back();
        chunks.back().reserve(chunkBytes);
    }
    chunks.back().insert(chunks.back().end(), frame.begin(), frame.end());
}

}  // namespace

L2Stream::L2Stream(uint32_t firstVni, uint32_t vnis, size_t messages, size_t itemsPerMessage)
    : _firstVni(firstVni), _vnis(vnis)
{
    _deltas.reserve(messages);
    uint64_t mac = 0x020000000000;
    for (size_t m = 0; m < messages; ++m) {
        L2UpdateMsg& delta = _deltas.emplace_back();
        l2::L2MappingUpdateMsg* mapping = delta.add_mapping_update();
        mapping->set_type(l2::L2MappingUpdateMsg::VM_MAC);
        mapping->mutable_vn_instance()->set_vni(firstVni + static_cast<uint32_t>(m % vnis));
        for (size_t i = 0; i < itemsPerMessage; ++i, ++mac) {
            l2::L2UpdateMappingItemMsg* item = mapping->add_items();
            item->set_op(l2::L2UpdateMappingItemMsg::ADD);
            item->mutable_vm_mac()->mutable_vm_mac()->set_mac(mac);
            // VTEPs 192.168.1.1 to 192.168.1.200.
            item->mutable_vm_mac()->mutable_vtep_ip()->set_ipv4(0xC0A80101 + static_cast<uint32_t>(mac % 200));
        }
        _items += itemsPerMessage;
    }
}

std::vector<CtrlSim::Bytes> L2Stream::ControllerChunks(uint32_t sessionId, size_t frameLimit, size_t chunkBytes) const
{
    std::vector<CtrlSim::Bytes> chunks;
    for (const L2UpdateMsg& delta : _deltas) {
        CtrlSim::OutMessage msg;
        msg.type = CtrlSim::MsgType::AppData;
        msg.protocolId = CtrlSim::L2Handler::ProtocolId;
        msg.sessionId = sessionId;
        msg.frameLimit = frameLimit;
        const std::string bytes = delta.SerializeAsString();
        msg.body.reserve(1 + bytes.size());
        msg.body.push_back(kUpdateLeadByte);
        msg.body.insert(msg.body.end(), bytes.begin(), bytes.end());
        for (const CtrlSim::Bytes& frame : CtrlSim::MessageWriter::Frames(msg)) {
            AddToChunks(chunks, frame, chunkBytes);
        }
    }
    return chunks;
}

std::vector<CtrlSim::Bytes> L2Stream::DataPathChunks(size_t chunkBytes) const
{
    std::vector<CtrlSim::Bytes> chunks;
    com::corvid::zun::lcp::LcpDpMsg msg;
    msg.set_atomic_update_end(true);
    for (const L2UpdateMsg& delta : _deltas) {
        *msg.mutable_l2_update() = delta;
        AddToChunks(chunks, DpSim::DpFrame::Encode(kDpConfigType, msg.SerializeAsString()), chunkBytes);
    }
    return chunks;
}

}  // namespace FenRELBench
