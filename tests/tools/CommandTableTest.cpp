#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "CommandTable.h"

namespace SimShell {
namespace {

class TwoCommands : public CommandTable {
public:
    TwoCommands()
    {
        SetCommands({
            {"say", "say <word> [word]", 1, 2,
             [this](const Args& args) {
                 Output() += args[0] + "\n";
                 return args.size() == 2 ? "refused " + args[1] : std::string();
             }},
            {"throw", "throw", 0, 0, [](const Args&) -> std::string { throw std::runtime_error("it threw"); }},
        });
    }
};

TEST(CommandTableTest, RepliesEndInOkOrError)
{
    const struct {
        const char* line;
        const char* reply;
    } cases[] = {
        {"", ""},
        {"  say   hi  ", "hi\nok\n"},
        {"say hi there", "hi\nerror refused there\n"},
        {"say", "error usage: say <word> [word]\n"},
        {"say a b c", "error usage: say <word> [word]\n"},
        {"throw", "error it threw\n"},
        {"shout", "error unknown command shout (try help)\n"},
        {"help", "help\nsay <word> [word]\nthrow\nquit\nok\n"},
    };
    TwoCommands table;
    for (const auto& c : cases) {
        EXPECT_EQ(table.Execute(c.line), c.reply) << c.line;
    }
    EXPECT_FALSE(table.QuitRequested());
    EXPECT_EQ(table.Execute("quit"), "ok\n");
    EXPECT_TRUE(table.QuitRequested());
}

TEST(CommandTableTest, ParseNumberTakesDecimalOrHexWithinItsBound)
{
    EXPECT_EQ(CommandTable::ParseNumber("4096", 0xFFFF), 4096u);
    EXPECT_EQ(CommandTable::ParseNumber("0xffff", 0xFFFF), 0xFFFFu);
    EXPECT_EQ(CommandTable::ParseNumber("18446744073709551615", UINT64_MAX), UINT64_MAX);
    for (const char* bad : {"", "-1", "+1", "0x10000", "12ab", "18446744073709551616", "x"}) {
        EXPECT_EQ(CommandTable::ParseNumber(bad, 0xFFFF), std::nullopt) << bad;
    }
}

}  // namespace
}  // namespace SimShell
