#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace SimShell {

// The line commands of a simulator, apart from its standard input so that
// they can be called directly. Each line is a command name and its words;
// the reply ends with "ok" or "error <reason>" as its last line. "help" and
// "quit" are there for every simulator; a subclass sets its own commands.
class CommandTable {
public:
    using Args = std::vector<std::string>;
    struct Command {
        std::string name;
        std::string usage;
        size_t minArgs;
        size_t maxArgs;
        // Returns "" or an error; may append lines to Output(), which come
        // before the "ok" or "error" line. An exception is an error too.
        std::function<std::string(const Args&)> run;
    };

    virtual ~CommandTable() = default;

    // Runs one line; the reply, one or more lines each ending in '\n'
    // (none for an empty line).
    std::string Execute(const std::string& line);
    bool QuitRequested() const { return _quit; }
    // The usage of every command, one per line.
    std::string Help() const;

    // Decimal, or hexadecimal with 0x; nullopt above `max` or not a number.
    static std::optional<uint64_t> ParseNumber(const std::string& text, uint64_t max);

protected:
    // The simulator's commands, listed by "help" in this order, before "quit".
    void SetCommands(std::vector<Command> commands);
    // What the running command prints before its "ok" or "error" line.
    std::string& Output() { return _output; }

private:
    std::vector<Command> _commands;
    std::string _output;
    bool _quit = false;
};

}  // namespace SimShell
