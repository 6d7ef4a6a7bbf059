#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace DpSim {

class DataPathSim;

// The line commands of fenrel-dpsim, apart from its standard input so that
// they can be called directly. Each command answers with "ok" or
// "error <reason>" as its last line.
class CommandShell {
public:
    explicit CommandShell(DataPathSim& sim);

    // Runs one line; the reply, one or more lines each ending in '\n'.
    std::string Execute(const std::string& line);
    bool QuitRequested() const { return _quit; }
    std::string Help() const;

    // Decimal, or hexadecimal with 0x; nullopt above `max` or not a number.
    static std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t max);
    // Dotted IPv4 to host order.
    static std::optional<uint32_t> ParseIpv4(const std::string& text);
    // "aa:bb:cc:dd:ee:ff", the first byte highest.
    static std::optional<uint64_t> ParseMac(const std::string& text);

private:
    using Args = std::vector<std::string>;
    struct Command {
        std::string name;
        std::string usage;
        size_t minArgs;
        size_t maxArgs;
        std::function<std::string(const Args&)> run;  // returns "" or an error, may append to _output
    };

    std::string Status(const Args& args);
    std::string View(const Args& args);
    std::string FullSync(const Args& args);
    std::string AutoFullSync(const Args& args);
    std::string Vif(const Args& args);
    std::string VifDel(const Args& args);
    std::string L2(const Args& args);
    std::string Close(const Args& args);
    std::string Quit(const Args& args);
    // Passes on the result of a change of local state, noting one that is
    // kept for the next first message.
    std::string LocalChange(const std::string& error);

    DataPathSim& _sim;
    std::vector<Command> _commands;
    std::string _output;
    bool _quit = false;
};

}  // namespace DpSim
