#include "SessionHandler.h"

#include <arpa/inet.h>

#include "ccp_lcp_config.pb.h"

namespace CtrlSim {

namespace config = com::corvid::zun::config;

namespace {

// An IPv4 address travels as a 32-bit integer in host order.
uint32_t HostOrder(const std::string& dotted)
{
    in_addr addr{};
    inet_pton(AF_INET, dotted.c_str(), &addr);
    return ntohl(addr.s_addr);
}

OutMessage Update(const config::CcpLcpZunConfigMsg& msg, uint32_t sessionId)
{
    OutMessage out;
    out.type = MsgType::AppData;
    out.protocolId = SessionHandler::ProtocolId;
    out.sessionId = sessionId;
    const std::string body = msg.SerializeAsString();
    out.body.push_back(0);
    out.body.insert(out.body.end(), body.begin(), body.end());
    return out;
}

}  // namespace

SessionHandler::SessionHandler(std::string ownAddress) : _ownAddress(std::move(ownAddress))
{
}

void SessionHandler::SetAutoAnswer(bool on)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _autoAnswer = on;
}

void SessionHandler::SetMaster(const std::string& address)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _master = address;
}

void SessionHandler::SetSharding(uint32_t sliceLength, std::vector<Segment> segments)
{
    std::lock_guard<std::mutex> lock(_mutex);
    _sliceLength = sliceLength;
    _segments = std::move(segments);
}

std::vector<SessionHandler::OpenRecord> SessionHandler::Opens() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _opens;
}

uint32_t SessionHandler::LastSessionId() const
{
    std::lock_guard<std::mutex> lock(_mutex);
    return _opens.empty() ? 0 : _opens.back().sessionId;
}

OutMessage SessionHandler::Ack(uint32_t sessionId)
{
    OutMessage ack;
    ack.type = MsgType::SessionControl;
    ack.protocolId = ProtocolId;
    ack.sessionId = sessionId;
    ack.body = {OpenAck};
    return ack;
}

OutMessage SessionHandler::MasterUpdate(const std::string& address, uint32_t sessionId)
{
    config::CcpLcpZunConfigMsg msg;
    msg.set_type(config::CcpLcpZunConfigMsg::MASTER_CONTROLLER);
    msg.mutable_master_controller()->mutable_ip()->set_ipv4(HostOrder(address));
    return Update(msg, sessionId);
}

void SessionHandler::SendMaster(Peer& peer, const std::string& address)
{
    peer.Send(MasterUpdate(address, LastSessionId()));
}

std::optional<OutMessage> SessionHandler::ShardingUpdate() const
{
    config::CcpLcpZunConfigMsg msg;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        if (_segments.empty()) {
            return std::nullopt;
        }
        msg.set_type(config::CcpLcpZunConfigMsg::SHARDING_ASSIGNMENT);
        auto* sharding = msg.mutable_sharding_assignment();
        sharding->set_sharding_slice_length(_sliceLength);
        for (const Segment& segment : _segments) {
            auto* assignment = sharding->add_assignments();
            assignment->mutable_controller()->mutable_ip()->set_ipv4(HostOrder(segment.controller));
            auto* slices = assignment->add_segments();
            slices->set_start_slice_id(segment.startSlice);
            slices->set_num_slices(segment.numSlices);
        }
    }
    return Update(msg, LastSessionId());
}

void SessionHandler::SendSharding(Peer& peer)
{
    if (const auto sharding = ShardingUpdate()) {
        peer.Send(*sharding);
    }
}

void SessionHandler::OnMessage(Peer& peer, const RecordedMessage& msg)
{
    if (msg.header.type != MsgType::SessionControl || msg.body.empty()) {
        peer.ReportViolation("session: unexpected message type " + std::to_string(msg.header.type));
        return;
    }
    if (msg.body[0] != Open) {
        peer.ReportViolation("session: unexpected control type " + std::to_string(msg.body[0]));
        return;
    }
    config::ConfigSessionMsg open;
    if (!open.ParseFromArray(msg.body.data() + 1, static_cast<int>(msg.body.size() - 1))) {
        peer.ReportViolation("session: Open body does not parse");
    }
    bool answer = false;
    std::string master;
    {
        std::lock_guard<std::mutex> lock(_mutex);
        _opens.push_back({msg.connection, msg.header.sessionId, open.product_version().major()});
        answer = _autoAnswer;
        master = _master.empty() ? _ownAddress : _master;
    }
    if (!answer) {
        return;
    }
    peer.Send(Ack(msg.header.sessionId));
    SendMaster(peer, master);
    SendSharding(peer);
}

}  // namespace CtrlSim
