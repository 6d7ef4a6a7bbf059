#include "AppManager.h"

#include "Assert.h"
#include "ExtendedApp.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "MultiControllerApp.h"
#include "TlvCommon.h"

namespace ZUNChannel {

namespace {
boost::intrusive_ptr<AppManager> s_appManager;
}  // namespace

void AppManager::Create()
{
    ASSERT(!s_appManager);
    s_appManager.reset(new AppManager());
}

boost::intrusive_ptr<AppManager> AppManager::Get()
{
    // Apps are reached only after start-up made the manager.
    ASSERT(s_appManager);
    return s_appManager;
}

void AppManager::Destroy()
{
    s_appManager.reset();
}

void AppManager::RegisterApp(const boost::intrusive_ptr<App>& app)
{
    _apps.insert(std::make_pair(app->GetKey(), app));
}

boost::intrusive_ptr<App> AppManager::FindApp(uint16_t id, uint32_t instance) const
{
    if (!_exactInstanceLookup && (id & 0xFEFF) == 0) {
        instance = 0;
    }
    auto it = _apps.find(AppKey(id, instance));
    return it == _apps.end() ? nullptr : it->second;
}

void AppManager::StartAll()
{
    // At start-up the data-path link is already up and may be handling its
    // peer's first message under the global lock: the apps start in turn
    // with it, as every other piece of app code runs.
    GlobalLockGuard lock;
    for (auto& entry : _apps) {
        ASSERT(entry.second);
        entry.second->Start();
    }
}

void AppManager::StopAll()
{
    for (auto& entry : _apps) {
        ASSERT(entry.second);
        entry.second->Stop();
    }
}

void AppManager::PostEvent(const boost::intrusive_ptr<Event>& event)
{
    FLOG_TRIVIA("AppManager::PostEvent(Event(Category=%1, IsAllApp=%2))", event->GetCategory(),
                event->IsAllApp());
    for (auto& entry : _apps) {
        if (event->IsAllApp() || (event->GetTarget() != nullptr && *event->GetTarget() == entry.first)) {
            entry.second->HandleEvent(event);
        }
    }
}

uint16_t AppManager::GetHelloFeatureLen(uint32_t instance) const
{
    uint32_t total = 0;
    for (const auto& entry : _apps) {
        auto* app = dynamic_cast<ExtendedApp*>(entry.second.get());
        if (app != nullptr && entry.first.instance == instance) {
            total += app->GetHelloFeatureLen();
        }
    }
    // The features travel inside one TLV, whose length is 16 bits.
    ASSERT(total <= 65535);
    return static_cast<uint16_t>(total);
}

uint16_t AppManager::WriteHelloFeatures(uint8_t* buffer, uint32_t instance) const
{
    uint16_t written = 0;
    for (const auto& entry : _apps) {
        auto* app = dynamic_cast<ExtendedApp*>(entry.second.get());
        if (app != nullptr && entry.first.instance == instance && app->GetHelloFeatureLen() != 0) {
            written = static_cast<uint16_t>(written + app->WriteHelloFeature(buffer + written));
        }
    }
    return written;
}

bool AppManager::ValidateHelloFeature(const uint8_t* tlv, bool strict, uint32_t instance) const
{
    const uint16_t featureId = FenREL::TlvCommon::Type(tlv);
    auto* app = dynamic_cast<ExtendedApp*>(FindApp(featureId, instance).get());
    if (app == nullptr) {
        FLOG_ERROR("Can't find hello negotiation app for featureID %1", featureId)
            .AddTag("errorCode:LCP00009");
        return false;
    }
    FLOG_VERBOSE("App %1:%2, validate hello feature data", app->GetId(), app->GetInstance());
    return app->ValidateHelloFeature(tlv, strict);
}

void AppManager::ApplyHelloFeature(const uint8_t* tlv, uint32_t instance) const
{
    auto* app = dynamic_cast<ExtendedApp*>(FindApp(FenREL::TlvCommon::Type(tlv), instance).get());
    if (app == nullptr) {
        return;
    }
    FLOG_VERBOSE("App %1:%2, apply hello feature data", app->GetId(), app->GetInstance());
    app->ApplyHelloFeature(tlv);
}

void AppManager::UpdateSharding(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments,
                                const std::string& controller, uint32_t revoke)
{
    for (auto& entry : _apps) {
        if (auto* app = dynamic_cast<MultiControllerApp*>(entry.second.get())) {
            app->UpdateSharding(segments, controller, revoke);
        }
    }
}

void AppManager::CheckSessions()
{
    for (auto& entry : _apps) {
        if (auto* app = dynamic_cast<MultiControllerApp*>(entry.second.get())) {
            app->CheckSessions();
        }
    }
}

}  // namespace ZUNChannel
