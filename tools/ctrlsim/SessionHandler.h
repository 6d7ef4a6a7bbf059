#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "MessageHandler.h"

namespace CtrlSim {

// The controller's side of the host's config session, protocolID 257:
//
//   host:       type 4 [0x01, ConfigSessionMsg]       Open, stamped with the session id
//   controller: type 4 [0x02]                         Open ACK, with that session id
//   controller: type 7 [0x00, CcpLcpZunConfigMsg]     MASTER_CONTROLLER, then SHARDING_ASSIGNMENT
//
// With auto-answer on (the default) every Open gets the ACK, the master
// controller (this controller unless set otherwise) and, when set, the
// sharding assignment. Settings are guarded by _mutex: tests change them
// from their own thread while the I/O thread reads them.
class SessionHandler : public MessageHandler {
public:
    static constexpr uint16_t ProtocolId = 257;
    static constexpr uint8_t Open = 1;
    static constexpr uint8_t OpenAck = 2;

    struct Segment {
        std::string controller;  // dotted IPv4
        uint32_t startSlice = 0;
        uint32_t numSlices = 0;
    };

    struct OpenRecord {
        size_t connection = 0;
        uint32_t sessionId = 0;
        uint32_t versionMajor = 0;
    };

    // `ownAddress`: the dotted address this controller listens on.
    explicit SessionHandler(std::string ownAddress);

    void SetAutoAnswer(bool on);
    // The master controller named in answers; empty: this controller.
    void SetMaster(const std::string& address);
    void SetSharding(uint32_t sliceLength, std::vector<Segment> segments);

    std::vector<OpenRecord> Opens() const;
    // The session id of the host's last Open; 0 before one.
    uint32_t LastSessionId() const;

    // Messages for ControllerSim::SendMessage: the Open ACK, a
    // MASTER_CONTROLLER update naming `address`, and the sharding assignment
    // as set (none when unset), with the host's last session id.
    static OutMessage Ack(uint32_t sessionId);
    static OutMessage MasterUpdate(const std::string& address, uint32_t sessionId);
    std::optional<OutMessage> ShardingUpdate() const;

    // Sends MASTER_CONTROLLER naming `address`, and the sharding assignment
    // when one is set, on `peer`.
    void SendMaster(Peer& peer, const std::string& address);
    void SendSharding(Peer& peer);

    void OnMessage(Peer& peer, const RecordedMessage& msg) override;

private:
    mutable std::mutex _mutex;
    std::string _ownAddress;
    bool _autoAnswer = true;
    std::string _master;
    uint32_t _sliceLength = 0;
    std::vector<Segment> _segments;
    std::vector<OpenRecord> _opens;
};

}  // namespace CtrlSim
