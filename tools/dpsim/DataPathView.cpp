#include "DataPathView.h"

namespace DpSim {

void DataPathView::Apply(const com::corvid::zun::lcp::LcpDpMsg& msg, bool fullSync,
                         const std::vector<L2View::MappingCount>& countedL2)
{
    if (fullSync) {
        _config.Clear();
        _l2.Clear();
        _sessions.clear();
        ++_fullSyncs;
    } else {
        ++_deltas;
    }
    for (const auto& delta : msg.remote_config_update()) {
        _config.Apply(delta);
    }
    if (msg.has_l2_update()) {
        _l2.Apply(msg.l2_update());
    }
    for (const L2View::MappingCount& mapping : countedL2) {
        _l2.Count(mapping);
    }
    for (const CcpSessionStateMsg& session : msg.session_state()) {
        _sessions[KeyOf(session)] = session;
    }
    _l3Updates += msg.has_l3_update() ? 1 : 0;
    _traceflowUpdates += msg.has_traceflow_update() ? 1 : 0;
    _dfwUpdates += msg.has_dfw_update() ? 1 : 0;
    _dneUpdates += msg.has_dne_update() ? 1 : 0;
    _serviceUpdates += msg.has_service_update() ? 1 : 0;
}

std::optional<DataPathView::CcpSessionStateMsg> DataPathView::Session(int32_t type, uint32_t index) const
{
    auto it = _sessions.find(SessionKey(type, index));
    if (it == _sessions.end()) {
        return std::nullopt;
    }
    return it->second;
}

DataPathView::SessionKey DataPathView::KeyOf(const CcpSessionStateMsg& session)
{
    switch (session.session_type()) {
    case CcpSessionStateMsg::L2_SESSION:
        return SessionKey(session.session_type(), session.vni());
    case CcpSessionStateMsg::L3_SESSION:
        return SessionKey(session.session_type(), session.vdr_id());
    default:
        return SessionKey(session.has_session_type() ? session.session_type() : 0, 0);
    }
}

std::string DataPathView::Describe() const
{
    std::string text = "full syncs " + std::to_string(_fullSyncs) + " deltas " + std::to_string(_deltas) +
                       " entities " + std::to_string(_config.EntityCount()) + " vnis " +
                       std::to_string(_l2.VniCount()) + " sessions " + std::to_string(_sessions.size()) + " l3 " +
                       std::to_string(_l3Updates) + " traceflow " + std::to_string(_traceflowUpdates) + " dfw " +
                       std::to_string(_dfwUpdates) + " dne " + std::to_string(_dneUpdates) + " service " +
                       std::to_string(_serviceUpdates) + "\n";
    text += _config.Describe();
    text += _l2.Describe();
    for (const auto& [key, session] : _sessions) {
        text += "session " + CcpSessionStateMsg::SessionType_Name(session.session_type());
        if (key.second != 0 || session.session_type() != CcpSessionStateMsg::CONFIG_SESSION) {
            text += " " + std::to_string(key.second);
        }
        text += " " + CcpSessionStateMsg::SessionState_Name(session.session_state()) + " controller " +
                L2View::Ipv4Text(session.controller_ip().ip().ipv4()) + "\n";
    }
    return text;
}

}  // namespace DpSim
