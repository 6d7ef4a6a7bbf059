#include "StressOptions.h"

#include "Logger.h"

namespace FenREL {

std::mutex& StressOptions::Mutex()
{
    static std::mutex* mutex = new std::mutex();
    return *mutex;
}

std::vector<boost::intrusive_ptr<StressOption>>& StressOptions::List()
{
    static auto* list = new std::vector<boost::intrusive_ptr<StressOption>>();
    return *list;
}

boost::intrusive_ptr<StressOption> StressOptions::Find(const std::string& name)
{
    std::lock_guard<std::mutex> lock(Mutex());
    for (const auto& option : List()) {
        if (option->name == name) {
            return option;
        }
    }
    return nullptr;
}

void StressOptions::Add(const std::string& name, int32_t min, int32_t max, int32_t defaultValue, int32_t kind,
                        const std::string& description)
{
    std::lock_guard<std::mutex> lock(Mutex());
    List().push_back(new StressOption(name, min, max, defaultValue, kind, description));
}

bool StressOptions::Set(const std::string& name, int32_t value)
{
    boost::intrusive_ptr<StressOption> option = Find(name);
    if (!option) {
        FLOG_TRIVIA("Unknown stress option: %1", name);
        return false;
    }
    std::lock_guard<std::mutex> lock(Mutex());
    if (value < option->min || value > option->max) {
        FLOG_TRIVIA("Invalid stress option level: %1 (bounds %2 to %3)", value, option->min, option->max);
        return false;
    }
    option->value = value;
    FLOG_TRIVIA("Set stress option %1 = %2", name, value);
    return true;
}

}  // namespace FenREL
