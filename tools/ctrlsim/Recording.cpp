#include "Recording.h"

#include <cstdio>

#include "Hex.h"

namespace CtrlSim {

namespace {

// Milliseconds of `t` on the steady clock, to compare the times of lines.
long long Millis(SteadyTime t)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(t.time_since_epoch()).count();
}

std::string BodyHex(const Bytes& body, size_t maxBodyBytes)
{
    if (body.size() > maxBodyBytes) {
        return ToHex(body.data(), maxBodyBytes) + "...";
    }
    return ToHex(body);
}

// The last `count` lines of `records`, after a count of those left out.
template <typename Record>
std::string LastLines(const std::vector<Record>& records, size_t count, const char* what)
{
    std::string text;
    const size_t first = records.size() > count ? records.size() - count : 0;
    if (first > 0) {
        text += "(" + std::to_string(first) + " earlier " + what + ")\n";
    }
    for (size_t i = first; i < records.size(); ++i) {
        text += records[i].ToString() + "\n";
    }
    return text;
}

}  // namespace

std::string RecordedMessage::ToString(size_t maxBodyBytes) const
{
    char head[160];
    snprintf(head, sizeof(head), "conn %zu recv type %u proto %u session 0x%08x v%u frames %zu bodylen %zu body ",
             connection, header.type, header.protocolId, header.sessionId, header.version, frameCount, body.size());
    return head + BodyHex(body, maxBodyBytes);
}

std::string SentMessage::ToString(size_t maxBodyBytes) const
{
    char head[128];
    snprintf(head, sizeof(head), "conn %zu sent type %u proto %u session 0x%08x bodylen %zu body ", connection, type,
             protocolId, sessionId, body.size());
    return head + BodyHex(body, maxBodyBytes);
}

std::string ConnectionRecord::ToString() const
{
    std::string text = "conn " + std::to_string(index) + " from port " + std::to_string(peerPort) + " accepted at " +
                       std::to_string(Millis(accepted)) + " ms";
    if (established) {
        text += ", up at " + std::to_string(Millis(*established)) + " ms";
    }
    if (closed) {
        text += ", closed at " + std::to_string(Millis(*closed)) + " ms (" + closeReason + ")";
    }
    return text;
}

std::string Recording::Summary(size_t lastMessages) const
{
    std::string text;
    for (const ConnectionRecord& connection : connections) {
        text += connection.ToString() + "\n";
    }
    for (const Violation& violation : violations) {
        text += "conn " + std::to_string(violation.connection) + " violation: " + violation.text + "\n";
    }
    return text + LastLines(messages, lastMessages, "messages") + LastLines(sent, lastMessages, "messages sent");
}

}  // namespace CtrlSim
