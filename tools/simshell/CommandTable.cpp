#include "CommandTable.h"

#include <exception>
#include <sstream>
#include <utility>

namespace SimShell {

void CommandTable::SetCommands(std::vector<Command> commands)
{
    _commands = std::move(commands);
    _commands.push_back({"quit", "quit", 0, 0, [this](const Args&) {
                             _quit = true;
                             return std::string();
                         }});
}

std::string CommandTable::Execute(const std::string& line)
{
    std::istringstream in(line);
    std::string name;
    Args args;
    in >> name;
    for (std::string word; in >> word;) {
        args.push_back(word);
    }
    if (name.empty()) {
        return "";
    }
    if (name == "help") {
        return Help() + "ok\n";
    }
    for (const Command& command : _commands) {
        if (command.name != name) {
            continue;
        }
        if (args.size() < command.minArgs || args.size() > command.maxArgs) {
            return "error usage: " + command.usage + "\n";
        }
        _output.clear();
        std::string error;
        try {
            error = command.run(args);
        } catch (const std::exception& e) {
            error = e.what();
        }
        return _output + (error.empty() ? "ok\n" : "error " + error + "\n");
    }
    return "error unknown command " + name + " (try help)\n";
}

std::string CommandTable::Help() const
{
    std::string text = "help\n";
    for (const Command& command : _commands) {
        text += command.usage + "\n";
    }
    return text;
}

std::optional<uint64_t> CommandTable::ParseNumber(const std::string& text, uint64_t max)
{
    // stoull takes a sign and wraps a negative number round.
    if (text.empty() || text[0] == '-' || text[0] == '+') {
        return std::nullopt;
    }
    try {
        size_t used = 0;
        const unsigned long long value = std::stoull(text, &used, 0);
        if (used != text.size() || value > max) {
            return std::nullopt;
        }
        return value;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace SimShell
