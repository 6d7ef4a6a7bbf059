#pragma once

#include <cstddef>
#include <string>

namespace FenREL {

// Turns a log text with numbered placeholders into the final line, and values
// into the ready-made argument strings that fill them.
class LogFormatter {
public:
    // "%1" to "%9" insert that argument and "%%" gives "%"; any other pair is
    // copied. A placeholder above the argument count ends the text there.
    static std::string Format(const char* format, const std::string* args, size_t count);
};

// One small formatter per argument type, found by argument-dependent lookup so
// that a type of another namespace can bring its own.
std::string ToLogArg(int value);
std::string ToLogArg(unsigned int value);
std::string ToLogArg(long value);
std::string ToLogArg(unsigned long value);
std::string ToLogArg(long long value);
std::string ToLogArg(unsigned long long value);
std::string ToLogArg(short value);
std::string ToLogArg(unsigned short value);
std::string ToLogArg(signed char value);
std::string ToLogArg(unsigned char value);
std::string ToLogArg(char value);
std::string ToLogArg(bool value);
std::string ToLogArg(double value);
std::string ToLogArg(const std::string& value);
std::string ToLogArg(const char* value);
std::string ToLogArg(const void* value);

}  // namespace FenREL
