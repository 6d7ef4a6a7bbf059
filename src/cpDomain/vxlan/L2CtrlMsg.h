#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>

#include "CtrlMsgFragmenter.h"
#include "ccp_lcp_l2.pb.h"

namespace FenREL {

// The messages that the L2 apps exchange with a controller, behind the
// control header (flags bit 7 on all fragments but the last; the session id
// written as FF FF FF FF and stamped by the session at send). Multi-byte
// fields big-endian:
//
//   session control (4)         update (7)               notification (8)
//   15  control type            15  0                    15  error code (16)
//   16  L2SessionParamMsg       16  L2UpdateMsg          17  sub code (16)
//                                                        19  VNI (32)
//
// An update too large for one frame goes out as fragments: the logical body
// is the zero byte and the protobuf, cut in pieces of maxPktLen - 15 bytes.
//
// Plain functions over bytes; what to log is the caller's, except for the
// lines that every notification gets.
class L2CtrlMsg {
public:
    using L2UpdateMsg = com::corvid::zun::l2::L2UpdateMsg;
    using L2MappingUpdateMsg = com::corvid::zun::l2::L2MappingUpdateMsg;
    using L2SessionParamMsg = com::corvid::zun::l2::L2SessionParamMsg;

    static constexpr uint16_t kTypeSessionControl = 4;
    static constexpr uint16_t kTypeUpdate = 7;
    static constexpr uint16_t kTypeNotification = 8;
    // Where the protobuf of a session control or an update starts.
    static constexpr uint32_t kPayloadOffset = 16;
    static constexpr uint32_t kNotificationSize = 23;

    // Notification codes: a controller that no longer serves a VNI.
    static constexpr uint16_t kErrorVni = 1;
    static constexpr uint16_t kSubInvalidVni = 2;

    struct Notification {
        uint16_t error = 0;
        uint16_t sub = 0;
        uint32_t vni = 0;
    };

    // A session control message for `vni` (transport switch id left out).
    static uint8_t* BuildSessionControl(uint16_t protocolId, uint8_t controlType, uint32_t vni);
    // False for a bare header (no control type) or a protobuf that does not parse.
    static bool ParseSessionControl(const uint8_t* msg, uint32_t size, uint8_t& controlType,
                                    L2SessionParamMsg& param);

    // One update message. Its `length` is the size cut to 16 bits: callers
    // keep whole updates under 64 KiB or use UpdateFrames.
    static uint8_t* BuildUpdate(uint16_t protocolId, const L2UpdateMsg& update);
    // The frames of an update under a frame limit `maxPktLen` (at least 16 when
    // it must cut): one whole message while size + 16 fits, fragments beyond.
    static ZUNChannel::CtrlMsgFragmenter::Frames UpdateFrames(uint16_t protocolId, const L2UpdateMsg& update,
                                                              uint16_t maxPktLen);
    // Parses the update of a message of `size` bytes (reassembled: its header
    // length may be cut). `protobufLength` says how many bytes were read.
    static bool ParseUpdate(const uint8_t* msg, uint32_t size, L2UpdateMsg& update, uint32_t& protobufLength);

    // False for a message too short to hold the three fields.
    static bool ParseNotification(const uint8_t* msg, uint32_t size, Notification& out);
    // Logs what every notification gets; for a pair other than error 1 with
    // one of `knownSubs`, also the "need handler" error, and returns false.
    static bool AcceptNotification(const std::string& appName, const Notification& notification,
                                   std::initializer_list<uint16_t> knownSubs);

    // A mapping without `type` stands for the VNI itself: a join or leave from
    // the host, a full-sync mark from a controller.
    static bool IsVniEntry(const L2MappingUpdateMsg& mapping) { return !mapping.has_type(); }
    // Whether the first item of a VNI entry is an ADD. An entry without items
    // reads the default item, which is an ADD, with a warning.
    static bool IsVniEntryAdd(const L2MappingUpdateMsg& mapping, const std::string& appName);
};

}  // namespace FenREL
