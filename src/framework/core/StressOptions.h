#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>
#include <mutex>

#include "RefCounter.h"

namespace FenREL {

// One run-time knob for fault and load testing, bounded by [min, max].
class StressOption : public ZUNChannel::RefCounter<StressOption> {
public:
    StressOption(std::string optionName, int32_t minValue, int32_t maxValue, int32_t defaultVal, int32_t optionKind,
                 std::string text)
        : name(std::move(optionName)), min(minValue), max(maxValue), defaultValue(defaultVal), kind(optionKind),
          value(defaultVal), description(std::move(text))
    {
    }

    std::string name;
    int32_t min;
    int32_t max;
    int32_t defaultValue;
    int32_t kind;
    int32_t value;
    int32_t hits = 0;
    int32_t triggers = 0;
    std::string description;
};

// The process-wide list of stress knobs, under its own mutex. No knob is
// registered by the agent itself: the list stands for test builds.
class StressOptions {
public:
    static boost::intrusive_ptr<StressOption> Find(const std::string& name);
    static void Add(const std::string& name, int32_t min, int32_t max, int32_t defaultValue, int32_t kind,
                    const std::string& description);
    // A value outside [min, max] or an unknown name changes nothing.
    static bool Set(const std::string& name, int32_t value);

private:
    static std::mutex& Mutex();
    static std::vector<boost::intrusive_ptr<StressOption>>& List();
};

}  // namespace FenREL
