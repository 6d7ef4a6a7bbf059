#pragma once

#include <sys/time.h>

#include <string>
#include <vector>

namespace FenREL {

// The pieces of an RFC 5424 line as the agent writes them:
//
//   <182>1 2026-11-23T10:52:01.123456+01:00 host ZUN 4242 - [zun@31415 comp="zun-controller"
//       subcomp="fenrel" tid="4243" level="info" errorCode="LCP00016"] text
class Rfc5424 {
public:
    // LOG_LOCAL6 with the severity of the level: 179, 179, 180, 182, 183, 183.
    static int Priority(int level);
    // Local time as "%Y-%m-%dT%H:%M:%S.uuuuuu" and the zone of ZoneSuffix.
    static std::string Timestamp(const struct timeval& now);
    // "+0000" gives "Z", any other "%z" text "+hh:mm".
    static std::string ZoneSuffix(const std::string& percentZ);
    // Tags are "key:value", split at the first ':'; an empty key becomes
    // "tag"; a tag with neither key nor value is skipped.
    static std::string StructuredData(const std::string& entId, long tid, int level,
                                      const std::vector<std::string>& tags);
    static std::string Header(int priority, const std::string& timestamp, const std::string& host,
                              int pid, const std::string& msgId);
};

}  // namespace FenREL
