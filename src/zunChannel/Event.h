#pragma once

#include <cstdint>
#include <memory>

#include "AppKey.h"
#include "RefCounter.h"

namespace ZUNChannel {

// A notification posted through AppManager::PostEvent, to every application
// (isAllApp) or to the one whose key is the target.
class Event : public RefCounter<Event> {
public:
    enum Category : uint32_t {
        CTRL_CONN_EVENT = 0,
        SUPPORT_EVENT = 2,
    };

    // `target` is owned by the event; null for a broadcast.
    Event(uint32_t category, std::unique_ptr<AppKey> target, bool isAllApp, bool flag)
        : _category(category), _target(std::move(target)), _isAllApp(isAllApp), _flag(flag)
    {
    }
    ~Event() override = default;

    uint32_t GetCategory() const { return _category; }
    const AppKey* GetTarget() const { return _target.get(); }
    bool IsAllApp() const { return _isAllApp; }
    // Meaning set by the category.
    bool GetFlag() const { return _flag; }

private:
    uint32_t _category;
    std::unique_ptr<AppKey> _target;
    bool _isAllApp;
    bool _flag;
};

}  // namespace ZUNChannel
