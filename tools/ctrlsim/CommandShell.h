#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Hello.h"

namespace CtrlSim {

class ControllerSim;

// The line commands of fenrel-ctrlsim, apart from its standard input so
// that they can be called directly. Each command answers with "ok" or
// "error <reason>" as its last line.
class CommandShell {
public:
    explicit CommandShell(ControllerSim& sim);

    // Runs one line; the reply, one or more lines each ending in '\n'.
    std::string Execute(const std::string& line);
    bool QuitRequested() const { return _quit; }
    // The usage of every command, one per line.
    std::string Help() const;

    // Sets one field of `hello` from text, as the options and `hello-set`
    // give it: version, flags, max-pkt-len, keepalive-interval,
    // msg-frequency, slice-length, node-uuid (or "none" for these five),
    // feature ID:VERSION[:HEX] (adds one), features none, extra-tlvs HEX.
    // Returns an empty string, or what is wrong.
    static std::string SetHelloField(Hello& hello, const std::string& field, const std::string& value);
    // Decimal, or hexadecimal with 0x; nullopt above `max` or not a number.
    static std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t max);

private:
    using Args = std::vector<std::string>;
    struct Command {
        std::string name;
        std::string usage;
        size_t minArgs;
        size_t maxArgs;
        std::function<std::string(const Args&)> run;  // returns "" or an error, may append to _output
    };

    std::string KeepAlive(const Args& args);
    std::string KeepAlivePeriod(const Args& args);
    std::string HelloMode(const Args& args);
    std::string HelloSet(const Args& args);
    std::string SendHello(const Args& args);
    std::string Send(const Args& args);
    std::string Raw(const Args& args);
    std::string Close(const Args& args);
    std::string Accept(const Args& args);
    // Moves the host's session: the controller it names is the master now.
    std::string Master(const Args& args);
    std::string Status(const Args& args);
    std::string Quit(const Args& args);

    ControllerSim& _sim;
    std::vector<Command> _commands;
    std::string _output;  // lines a command prints before its "ok"
    bool _quit = false;
};

}  // namespace CtrlSim
