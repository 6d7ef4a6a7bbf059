#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "LogFormatter.h"
#include "LogLevel.h"
#include "Logger.h"
#include "Rfc5424.h"

namespace {

using FenREL::LogFormatter;
using FenREL::Rfc5424;

struct FormatCase {
    const char* format;
    std::vector<std::string> args;
    const char* expected;
};

class LogFormatterTest : public testing::TestWithParam<FormatCase> {};

TEST_P(LogFormatterTest, FillsPlaceholders)
{
    const FormatCase& c = GetParam();
    EXPECT_EQ(c.expected, LogFormatter::Format(c.format, c.args.data(), c.args.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Placeholders, LogFormatterTest,
    testing::Values(FormatCase{"conn %1 to %2", {"a", "b"}, "conn a to b"},
                    FormatCase{"%2 before %1", {"a", "b"}, "b before a"},
                    FormatCase{"100%% sure", {}, "100% sure"},
                    FormatCase{"%d and %s stay", {"x"}, "%d and %s stay"},
                    // A placeholder beyond the arguments ends the text there.
                    FormatCase{"keep %1 drop %3 and the rest", {"a", "b"}, "keep a drop "},
                    FormatCase{"ends with %", {}, "ends with %"},
                    FormatCase{"%9", {"1", "2", "3", "4", "5", "6", "7", "8", "nine"}, "nine"}));

TEST(Rfc5424Test, HeaderAndStructuredData)
{
    const int priorities[] = {0, 179, 179, 180, 182, 183, 183};
    for (int level = 1; level <= 6; ++level) {
        EXPECT_EQ(priorities[level], Rfc5424::Priority(level)) << "level " << level;
    }
    EXPECT_EQ("<182>1 TS host ZUN 42 -", Rfc5424::Header(182, "TS", "host", 42, ""));
    EXPECT_EQ("[zun@31415 comp=\"zun-controller\" subcomp=\"fenrel\" tid=\"7\" level=\"error\" "
              "errorCode=\"LCP00016\"]",
              Rfc5424::StructuredData("", 7, FenREL::LOGLEVEL_ERROR, {"errorCode:LCP00016"}));
    // entId only when set; a tag without key is keyed "tag"; one with neither
    // key nor value is skipped; the value keeps any further colon.
    EXPECT_EQ("[zun@31415 comp=\"zun-controller\" subcomp=\"fenrel\" entId=\"e1\" tid=\"7\" "
              "level=\"trivia\" tag=\"plain\" tag=\"v\" k=\"a:b\"]",
              Rfc5424::StructuredData("e1", 7, FenREL::LOGLEVEL_TRIVIA, {"plain", ":v", ":", "", "k:a:b"}));
}

TEST(Rfc5424Test, TimestampIsLocalWithZOrAColonSeparatedZone)
{
    const char* saved = getenv("TZ");
    const std::string savedZone = saved != nullptr ? saved : "";
    const struct timeval when = {1700000000, 42};
    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ("2023-11-14T22:13:20.000042Z", Rfc5424::Timestamp(when));
    setenv("TZ", "IST-5:30", 1);
    tzset();
    EXPECT_EQ("2023-11-15T03:43:20.000042+05:30", Rfc5424::Timestamp(when));
    EXPECT_EQ("-08:00", Rfc5424::ZoneSuffix("-0800"));
    if (saved != nullptr) {
        setenv("TZ", savedZone.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

// An argument type that counts how often it is formatted.
struct CountingArg {
    static int formatted;
};
int CountingArg::formatted = 0;
std::string ToLogArg(const CountingArg&)
{
    ++CountingArg::formatted;
    return "counted";
}

TEST(LoggerTest, DisabledLevelsFormatNothingAndLevelZeroSilencesPanics)
{
    CountingArg::formatted = 0;
    {
        FenRELTest::LogCapture log(FenREL::LOGLEVEL_NONE);
        FLOG_PANIC("panic %1", CountingArg());
        EXPECT_EQ("", log.Text());
    }
    FenRELTest::LogCapture log(FenREL::LOGLEVEL_INFO);
    FLOG_VERBOSE("not shown %1", CountingArg());
    FLOG_ERROR("shown %1", CountingArg()).AddTag("errorCode:LCP00016");
    EXPECT_EQ(1, CountingArg::formatted);
    const std::regex line(R"re(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}(Z|[+-]\d\d:\d\d) )re"
                          R"re(\[zun@31415 comp="zun-controller" subcomp="fenrel" tid="\d+" )re"
                          R"re(level="error" errorCode="LCP00016"\] shown counted\n)re");
    EXPECT_TRUE(std::regex_match(log.Text(), line)) << log.Text();
}

}  // namespace
