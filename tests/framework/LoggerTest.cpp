#include <cstdlib>
#include <ctime>
#include <regex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

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

TEST(LogArgTest, OneFormatterPerType)
{
    using FenREL::ToLogArg;
    EXPECT_EQ("-5", ToLogArg(-5));
    EXPECT_EQ("4294967295", ToLogArg(4294967295u));
    EXPECT_EQ("-9223372036854775807", ToLogArg(-9223372036854775807LL));
    EXPECT_EQ("18446744073709551615", ToLogArg(18446744073709551615ULL));
    EXPECT_EQ("true", ToLogArg(true));
    EXPECT_EQ("false", ToLogArg(false));
    EXPECT_EQ("x", ToLogArg('x'));
    // Bytes are numbers in logs (marker bytes, versions), not characters.
    EXPECT_EQ("186", ToLogArg(static_cast<uint8_t>(0xBA)));
    EXPECT_EQ("0x10", ToLogArg(reinterpret_cast<const void*>(0x10)));
}

TEST(Rfc5424Test, PriorityIsLocal6WithTheLevelsSeverity)
{
    const int expected[] = {0, 179, 179, 180, 182, 183, 183};
    for (int level = 1; level <= 6; ++level) {
        EXPECT_EQ(expected[level], Rfc5424::Priority(level)) << "level " << level;
    }
}

TEST(Rfc5424Test, ZoneIsZForUtcAndColonSeparatedOtherwise)
{
    EXPECT_EQ("Z", Rfc5424::ZoneSuffix("+0000"));
    EXPECT_EQ("+05:30", Rfc5424::ZoneSuffix("+0530"));
    EXPECT_EQ("-08:00", Rfc5424::ZoneSuffix("-0800"));
}

TEST(Rfc5424Test, TimestampFollowsTheLocalZone)
{
    const char* saved = getenv("TZ");
    const std::string savedZone = saved != nullptr ? saved : "";
    struct timeval when = {1700000000, 42};

    setenv("TZ", "UTC0", 1);
    tzset();
    EXPECT_EQ("2023-11-14T22:13:20.000042Z", Rfc5424::Timestamp(when));

    setenv("TZ", "IST-5:30", 1);
    tzset();
    EXPECT_EQ("2023-11-15T03:43:20.000042+05:30", Rfc5424::Timestamp(when));

    if (saved != nullptr) {
        setenv("TZ", savedZone.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

TEST(Rfc5424Test, StructuredDataCarriesTagsAsKeyValuePairs)
{
    EXPECT_EQ("[zun@31415 comp=\"zun-controller\" subcomp=\"fenrel\" tid=\"7\" level=\"error\" "
              "errorCode=\"LCP00016\"]",
              Rfc5424::StructuredData("", 7, FenREL::LOGLEVEL_ERROR, {"errorCode:LCP00016"}));
    // entId only when set; a tag without key is keyed "tag"; one with neither
    // key nor value is skipped; the value keeps any further colon.
    EXPECT_EQ("[zun@31415 comp=\"zun-controller\" subcomp=\"fenrel\" entId=\"e1\" tid=\"7\" "
              "level=\"trivia\" tag=\"plain\" tag=\"v\" k=\"a:b\"]",
              Rfc5424::StructuredData("e1", 7, FenREL::LOGLEVEL_TRIVIA, {"plain", ":v", ":", "", "k:a:b"}));
}

TEST(Rfc5424Test, HeaderUsesDashForAnEmptyMsgId)
{
    EXPECT_EQ("<182>1 TS host ZUN 42 -", Rfc5424::Header(182, "TS", "host", 42, ""));
    EXPECT_EQ("<179>1 TS host ZUN 42 CONN", Rfc5424::Header(179, "TS", "host", 42, "CONN"));
}

TEST(LogLevelTest, NamesRoundTripAndUnknownNamesAreRefused)
{
    const int saved = FenREL::g_logLevel;
    for (const char* name : {"none", "panic", "error", "warning", "info", "verbose", "trivia"}) {
        EXPECT_TRUE(FenREL::SetLogLevelByName(name));
        EXPECT_EQ(name, FenREL::GetLogLevelName());
    }
    EXPECT_FALSE(FenREL::SetLogLevelByName("debug"));
    EXPECT_FALSE(FenREL::SetLogLevelByName("INFO"));
    EXPECT_EQ("trivia", FenREL::GetLogLevelName());
    FenREL::g_logLevel = saved;
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

class LoggerLevelTest : public testing::Test {
protected:
    void SetUp() override
    {
        _savedLevel = FenREL::g_logLevel;
        _savedConsole = FenREL::g_logToConsole;
        FenREL::g_logToConsole = true;
        CountingArg::formatted = 0;
    }
    void TearDown() override
    {
        FenREL::g_logLevel = _savedLevel;
        FenREL::g_logToConsole = _savedConsole;
    }
    int _savedLevel = 0;
    bool _savedConsole = true;
};

TEST_F(LoggerLevelTest, DisabledMessagesFormatNothing)
{
    FenREL::g_logLevel = FenREL::LOGLEVEL_INFO;
    testing::internal::CaptureStdout();
    FLOG_VERBOSE("not shown %1", CountingArg());
    FLOG_INFO("shown %1", CountingArg());
    const std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(1, CountingArg::formatted);
    EXPECT_EQ(std::string::npos, out.find("not shown"));
    EXPECT_NE(std::string::npos, out.find("shown counted"));
}

TEST_F(LoggerLevelTest, LevelZeroSilencesEvenPanics)
{
    FenREL::g_logLevel = FenREL::LOGLEVEL_NONE;
    testing::internal::CaptureStdout();
    FLOG_PANIC("panic %1", CountingArg());
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
    EXPECT_EQ(0, CountingArg::formatted);
}

TEST_F(LoggerLevelTest, ConsoleLineHasTimestampStructuredDataAndText)
{
    FenREL::g_logLevel = FenREL::LOGLEVEL_TRIVIA;
    testing::internal::CaptureStdout();
    FLOG_PANIC("same %1", "text");
    FLOG_ERROR("same %1", "text").AddTag("errorCode:LCP00016");
    const std::string out = testing::internal::GetCapturedStdout();
    const std::regex line(R"re(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}(Z|[+-]\d\d:\d\d) )re"
                          R"re(\[zun@31415 comp="zun-controller" subcomp="fenrel" tid="\d+" )re"
                          R"re(level="(panic|error)"( errorCode="LCP00016")?\] same text\n)re");
    std::smatch match;
    std::string rest = out;
    int lines = 0;
    while (std::regex_search(rest, match, line)) {
        ++lines;
        rest = match.suffix();
    }
    EXPECT_EQ(2, lines) << out;
    EXPECT_NE(std::string::npos, out.find("level=\"panic\"] same text"));
    EXPECT_NE(std::string::npos, out.find("level=\"error\" errorCode=\"LCP00016\"] same text"));
}

}  // namespace
