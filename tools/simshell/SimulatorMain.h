#pragma once

#include <functional>
#include <string>

namespace SimShell {

class CommandTable;

// Writes `text` to standard output whole and at once. Called from any thread:
// the simulator's event lines and the commands' replies share the output.
void Print(const std::string& text);

// The run of a simulator's executable once its options are read. Blocks
// SIGINT and SIGTERM (so call it before the simulator starts a thread: each
// thread inherits the mask) and ignores SIGPIPE. Then `start` starts the
// simulator, with its events going to Print, and returns its first line
// ("listening ..."), which is printed. Each line of standard input then runs
// through `commands` and its reply is printed. On "quit", SIGINT or SIGTERM,
// calls `stop` and returns 0; the end of standard input does not end it.
// When `start` throws, prints "<program>: <reason>" to standard error and
// returns 1.
int RunSimulator(const char* program, const std::function<std::string()>& start, CommandTable& commands,
                 const std::function<void()>& stop);

}  // namespace SimShell
