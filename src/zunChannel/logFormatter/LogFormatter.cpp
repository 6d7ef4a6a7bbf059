#include "LogFormatter.h"

#include <cstdio>

namespace FenREL {

std::string LogFormatter::Format(const char* format, const std::string* args, size_t count)
{
    std::string out;
    if (format == nullptr) {
        return out;
    }
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%' || p[1] == '\0') {
            out += *p;
            continue;
        }
        const char next = p[1];
        if (next >= '1' && next <= '9') {
            size_t index = static_cast<size_t>(next - '1');
            if (index >= count) {
                return out;
            }
            out += args[index];
        } else if (next == '%') {
            out += '%';
        } else {
            out += *p;
            out += next;
        }
        ++p;
    }
    return out;
}

namespace {

template <typename T>
std::string Printf(const char* spec, T value)
{
    char buf[64];
    snprintf(buf, sizeof(buf), spec, value);
    return buf;
}

}  // namespace

std::string ToLogArg(int value) { return Printf("%d", value); }
std::string ToLogArg(unsigned int value) { return Printf("%u", value); }
std::string ToLogArg(long value) { return Printf("%ld", value); }
std::string ToLogArg(unsigned long value) { return Printf("%lu", value); }
std::string ToLogArg(long long value) { return Printf("%lld", value); }
std::string ToLogArg(unsigned long long value) { return Printf("%llu", value); }
std::string ToLogArg(short value) { return Printf("%d", static_cast<int>(value)); }
std::string ToLogArg(unsigned short value) { return Printf("%u", static_cast<unsigned>(value)); }
std::string ToLogArg(signed char value) { return Printf("%d", static_cast<int>(value)); }
std::string ToLogArg(unsigned char value) { return Printf("%u", static_cast<unsigned>(value)); }
std::string ToLogArg(char value) { return Printf("%c", value); }
std::string ToLogArg(bool value) { return value ? "true" : "false"; }
std::string ToLogArg(double value) { return Printf("%g", value); }
std::string ToLogArg(const std::string& value) { return value; }
std::string ToLogArg(const char* value) { return value != nullptr ? value : "(null)"; }
std::string ToLogArg(const void* value) { return Printf("%p", value); }

}  // namespace FenREL
