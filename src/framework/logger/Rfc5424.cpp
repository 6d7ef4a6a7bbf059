#include "Rfc5424.h"

#include <syslog.h>

#include <cstdio>
#include <ctime>

#include "LogLevel.h"

namespace FenREL {

int Rfc5424::Priority(int level)
{
    int severity = LOG_DEBUG;
    switch (level) {
    case LOGLEVEL_PANIC:
    case LOGLEVEL_ERROR:
        severity = LOG_ERR;
        break;
    case LOGLEVEL_WARNING:
        severity = LOG_WARNING;
        break;
    case LOGLEVEL_INFO:
        severity = LOG_INFO;
        break;
    default:
        break;
    }
    return LOG_LOCAL6 | severity;
}

std::string Rfc5424::ZoneSuffix(const std::string& percentZ)
{
    if (percentZ == "+0000" || percentZ.size() != 5) {
        return "Z";
    }
    return percentZ.substr(0, 3) + ":" + percentZ.substr(3, 2);
}

std::string Rfc5424::Timestamp(const struct timeval& now)
{
    struct tm local;
    time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    char date[32];
    char zone[8];
    strftime(date, sizeof(date), "%Y-%m-%dT%H:%M:%S", &local);
    strftime(zone, sizeof(zone), "%z", &local);
    char micros[8];
    snprintf(micros, sizeof(micros), ".%06ld", static_cast<long>(now.tv_usec));
    return std::string(date) + micros + ZoneSuffix(zone);
}

std::string Rfc5424::StructuredData(const std::string& entId, long tid, int level,
                                    const std::vector<std::string>& tags)
{
    std::string sd = "[zun@31415 comp=\"zun-controller\" subcomp=\"fenrel\"";
    if (!entId.empty()) {
        sd += " entId=\"" + entId + "\"";
    }
    sd += " tid=\"" + std::to_string(tid) + "\"";
    sd += std::string(" level=\"") + LogLevelName(level) + "\"";
    for (const std::string& tag : tags) {
        std::string key;
        std::string value;
        const size_t colon = tag.find(':');
        if (colon == std::string::npos) {
            value = tag;
        } else {
            key = tag.substr(0, colon);
            value = tag.substr(colon + 1);
        }
        if (key.empty() && value.empty()) {
            continue;
        }
        if (key.empty()) {
            key = "tag";
        }
        sd += " " + key + "=\"" + value + "\"";
    }
    sd += "]";
    return sd;
}

std::string Rfc5424::Header(int priority, const std::string& timestamp, const std::string& host,
                            int pid, const std::string& msgId)
{
    return "<" + std::to_string(priority) + ">1 " + timestamp + " " + host + " ZUN " +
           std::to_string(pid) + " " + (msgId.empty() ? std::string("-") : msgId);
}

}  // namespace FenREL
