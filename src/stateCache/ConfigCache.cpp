#include "ConfigCache.h"

#include <algorithm>
#include <cstring>

#include "Assert.h"
#include "ConfigCacheTraits.h"
#include "Logger.h"
#include "SCConfigTableObserver.h"

namespace FenREL {

namespace {

using com::corvid::zun::config::ZunConfigDeltaMsg;

constexpr int32_t kDeleteOp = ZunConfigDeltaMsg::DELETE_OP;
constexpr int32_t kUpdateOp = ZunConfigDeltaMsg::UPDATE_OP;

}  // namespace

const char* const LocalConfigTraits::kDumpHeader = "Dump config local StateCache";
const char* const LocalConfigTraits::kDumpLine =
    "EntityType is : %1, EntityId is : %2, StateType is %3,FullsyncVersion is %4, PropertyValue is %5";
const char* const RemoteConfigTraits::kDumpHeader = "Dump config remote StateCache";
const char* const RemoteConfigTraits::kDumpLine =
    "EntityType is : %1, EntityId is : %2, PropertyType is %3,FullsyncVersion is %4, PropertyValue is %5";

bool LocalConfigTraits::AcceptEntity(const Delta& delta)
{
    // The data path names what it reports; an entity of no type means that it
    // and we no longer agree on the protocol.
    ASSERT(delta.entity_type() != 0);
    return true;
}

bool LocalConfigTraits::AcceptValue(const Value& value)
{
    if (value.state_type() == 0) {
        FLOG_VERBOSE("Received invalid state from data path");
        return false;
    }
    return true;
}

std::string_view LocalConfigTraits::Key(const Delta& delta, std::string&)
{
    return delta.entity_id();
}

void LocalConfigTraits::Notify(SCConfigTableObserver* observer, const LocalStateUpdateList& updates)
{
    observer->ProcessLocalStateUpdate(updates);
}

bool RemoteConfigTraits::AcceptEntity(const Delta& delta)
{
    if (delta.entity_type() == 0) {
        FLOG_VERBOSE("Received invalid entity from controller");
        return false;
    }
    return true;
}

bool RemoteConfigTraits::AcceptValue(const Value& value)
{
    if (value.property_type() == 0) {
        FLOG_VERBOSE("Received invalid property from controller");
        return false;
    }
    return true;
}

std::string_view RemoteConfigTraits::Key(const Delta& delta, std::string& scratch)
{
    scratch.clear();
    delta.entity_id().AppendToString(&scratch);
    return scratch;
}

void RemoteConfigTraits::SetIdFromKey(std::string_view key, Update& update)
{
    update.entityId.ParseFromArray(key.data(), static_cast<int>(key.size()));
}

std::string RemoteConfigTraits::IdText(std::string_view key)
{
    com::corvid::zun::UuidMsg id;
    id.ParseFromArray(key.data(), static_cast<int>(key.size()));
    return id.ShortDebugString();
}

void RemoteConfigTraits::Notify(SCConfigTableObserver* observer, const RemotePropertyUpdateList& updates)
{
    observer->ProcessRemotePropertyUpdate(updates);
}

template <typename Traits>
void ConfigCache<Traits>::StoredItem::Assign(std::string_view value)
{
    if (value.size() != size || bytes == nullptr) {
        bytes.reset(value.empty() ? nullptr : new char[value.size()]);
        size = static_cast<uint32_t>(value.size());
    }
    if (!value.empty()) {
        memcpy(bytes.get(), value.data(), value.size());
    }
}

template <typename Traits>
bool ConfigCache<Traits>::AtomicUpdate(const std::vector<const Delta*>& deltas, bool fullSync,
                                       UpdateList& updates)
{
    const uint32_t old = _version;
    if (deltas.empty()) {
        // An empty full sync empties the cache; the version stays.
        if (fullSync) {
            Sweep(old, updates);
        }
        return true;
    }
    if (fullSync) {
        _version = old + 1;
    }
    for (const Delta* delta : deltas) {
        if (!Apply(*delta, fullSync, updates)) {
            return false;
        }
    }
    if (fullSync) {
        // What the full sync did not restate still has the old version.
        Sweep(old, updates);
    }
    return true;
}

template <typename Traits>
bool ConfigCache<Traits>::Apply(const Delta& delta, bool fullSync, UpdateList& updates)
{
    if (!Traits::AcceptEntity(delta)) {
        return true;
    }
    const std::string_view key = Traits::Key(delta, _key);
    const int32_t operation = delta.operation();
    const auto& values = Traits::Values(delta);
    auto entity = _entities.find(key);
    if (values.empty()) {
        if (operation == kDeleteOp) {
            RemoveEntity(entity, delta, updates);
            return true;
        }
        if (operation == kUpdateOp) {
            return CreateEntity(entity, key, delta, fullSync, updates);
        }
        return Unsupported(operation);
    }
    for (const Value& value : values) {
        if (!Traits::AcceptValue(value)) {
            continue;
        }
        const uint32_t type = Traits::TypeOf(value);
        if (operation == kDeleteOp) {
            entity = RemoveValue(entity, delta, type, updates);
        } else if (operation == kUpdateOp) {
            entity = UpdateValue(entity, key, delta, value, type, fullSync, updates);
        } else {
            return Unsupported(operation);
        }
    }
    return true;
}

template <typename Traits>
bool ConfigCache<Traits>::Unsupported(int32_t operation)
{
    // Like a duplicate create, the rest of the batch is dropped untold.
    FLOG_ERROR("unsupported operation %1", operation).AddTag("errorCode:LCP00007");
    return false;
}

template <typename Traits>
void ConfigCache<Traits>::RemoveEntity(typename EntityMap::iterator entity, const Delta& delta,
                                       UpdateList& updates)
{
    if (entity != _entities.end()) {
        for (const StoredItem& item : entity->second) {
            if (item.type != 0) {
                updates.push_back(MakeUpdate(delta, delta.operation(), item.type, Parse(item)));
            }
        }
        _entities.erase(entity);
    }
    updates.push_back(MakeUpdate(delta, delta.operation(), 0, nullptr));
}

template <typename Traits>
bool ConfigCache<Traits>::CreateEntity(typename EntityMap::iterator entity, std::string_view key,
                                       const Delta& delta, bool fullSync, UpdateList& updates)
{
    if (entity != _entities.end()) {
        if (!fullSync) {
            // The rest of the batch is dropped, and nobody hears of what was
            // applied before: a peer that creates twice has lost track.
            FLOG_VERBOSE("create existing entity operation!");
            return false;
        }
        for (StoredItem& item : entity->second) {
            if (item.type == 0) {
                item.version = _version;
            }
        }
        return true;
    }
    Entity& items = _entities.emplace(std::string(key), Entity()).first->second;
    items.emplace_back();
    items.back().entityType = delta.entity_type();
    items.back().version = _version;
    updates.push_back(MakeUpdate(delta, delta.operation(), 0, nullptr));
    return true;
}

template <typename Traits>
typename ConfigCache<Traits>::EntityMap::iterator ConfigCache<Traits>::RemoveValue(
    typename EntityMap::iterator entity, const Delta& delta, uint32_t type, UpdateList& updates)
{
    if (entity == _entities.end()) {
        return entity;
    }
    Entity& items = entity->second;
    auto kept = items.begin();
    for (auto item = items.begin(); item != items.end(); ++item) {
        if (item->type == type) {
            updates.push_back(MakeUpdate(delta, delta.operation(), type, Parse(*item)));
        } else {
            if (kept != item) {
                *kept = std::move(*item);
            }
            ++kept;
        }
    }
    items.erase(kept, items.end());
    if (items.empty()) {
        _entities.erase(entity);
        return _entities.end();
    }
    return entity;
}

template <typename Traits>
typename ConfigCache<Traits>::EntityMap::iterator ConfigCache<Traits>::UpdateValue(
    typename EntityMap::iterator entity, std::string_view key, const Delta& delta, const Value& value,
    uint32_t type, bool fullSync, UpdateList& updates)
{
    _value.clear();
    value.AppendToString(&_value);
    if (entity == _entities.end()) {
        entity = _entities.emplace(std::string(key), Entity()).first;
    }
    Entity& items = entity->second;
    auto item = std::find_if(items.begin(), items.end(), [type](const StoredItem& i) { return i.type == type; });
    if (item == items.end()) {
        items.emplace_back();
        items.back().entityType = delta.entity_type();
        items.back().type = type;
        items.back().version = _version;
        items.back().Assign(_value);
        updates.push_back(MakeUpdate(delta, kUpdateOp, type, std::make_shared<const Value>(value)));
        return entity;
    }
    if (item->Bytes() != _value) {
        item->Assign(_value);
        updates.push_back(MakeUpdate(delta, kUpdateOp, type, std::make_shared<const Value>(value)));
    }
    if (fullSync) {
        item->version = _version;
    }
    return entity;
}

template <typename Traits>
void ConfigCache<Traits>::Sweep(uint32_t version, UpdateList& updates)
{
    UpdateList markers;
    UpdateList values;
    for (auto entity = _entities.begin(); entity != _entities.end();) {
        Entity& items = entity->second;
        auto kept = items.begin();
        for (auto item = items.begin(); item != items.end(); ++item) {
            if (item->version != version) {
                if (kept != item) {
                    *kept = std::move(*item);
                }
                ++kept;
                continue;
            }
            Update update;
            update.entityType = item->entityType;
            Traits::SetIdFromKey(entity->first, update);
            update.operation = kDeleteOp;
            update.type = item->type;
            if (item->type != 0) {
                update.value = Parse(*item);
                values.push_back(std::move(update));
            } else {
                markers.push_back(std::move(update));
            }
        }
        items.erase(kept, items.end());
        entity = items.empty() ? _entities.erase(entity) : std::next(entity);
    }
    UpdateList& first = Traits::kMarkersFirstInSweep ? markers : values;
    UpdateList& second = Traits::kMarkersFirstInSweep ? values : markers;
    updates.reserve(updates.size() + first.size() + second.size());
    std::move(first.begin(), first.end(), std::back_inserter(updates));
    std::move(second.begin(), second.end(), std::back_inserter(updates));
}

template <typename Traits>
typename ConfigCache<Traits>::Lookup ConfigCache<Traits>::Find(std::string_view key, uint32_t type,
                                                               Value& value) const
{
    const auto entity = _entities.find(key);
    if (entity == _entities.end()) {
        return Lookup::NoEntity;
    }
    for (const StoredItem& item : entity->second) {
        if (item.type == type && item.type != 0) {
            value.ParseFromArray(item.bytes.get(), static_cast<int>(item.size));
            return Lookup::Found;
        }
    }
    return Lookup::NoValue;
}

template <typename Traits>
bool ConfigCache<Traits>::QueryEntity(std::string_view key, std::vector<Item>& items) const
{
    const auto entity = _entities.find(key);
    if (entity == _entities.end()) {
        return false;
    }
    for (const StoredItem& item : entity->second) {
        items.push_back(CopyOut(entity->first, item));
    }
    return true;
}

template <typename Traits>
void ConfigCache<Traits>::QueryAll(std::vector<Item>& items) const
{
    for (const auto& [key, entity] : _entities) {
        for (const StoredItem& item : entity) {
            items.push_back(CopyOut(key, item));
        }
    }
}

template <typename Traits>
bool ConfigCache<Traits>::FindIf(
    const std::function<bool(std::string_view, int32_t, uint32_t, std::string_view)>& visit) const
{
    for (const auto& [key, entity] : _entities) {
        for (const StoredItem& item : entity) {
            if (visit(key, item.entityType, item.type, item.Bytes())) {
                return true;
            }
        }
    }
    return false;
}

template <typename Traits>
void ConfigCache<Traits>::Dump() const
{
    FLOG_VERBOSE(Traits::kDumpHeader);
    if (!LogLevelEnabled(LOGLEVEL_VERBOSE)) {
        return;
    }
    for (const auto& [key, entity] : _entities) {
        const std::string id = Traits::IdText(key);
        for (const StoredItem& item : entity) {
            FLOG_VERBOSE(Traits::kDumpLine, item.entityType, id, item.type, item.version,
                         item.type == 0 ? std::string() : Parse(item)->ShortDebugString());
        }
    }
}

template <typename Traits>
typename ConfigCache<Traits>::Item ConfigCache<Traits>::CopyOut(std::string_view key,
                                                                const StoredItem& item) const
{
    Item copy;
    copy.entityId.assign(key);
    copy.entityType = item.entityType;
    copy.type = item.type;
    copy.value = item.type == 0 ? nullptr : Parse(item);
    copy.version = item.version;
    return copy;
}

template <typename Traits>
std::shared_ptr<const typename Traits::Value> ConfigCache<Traits>::Parse(const StoredItem& item)
{
    auto value = std::make_shared<Value>();
    value->ParseFromArray(item.bytes.get(), static_cast<int>(item.size));
    return value;
}

template <typename Traits>
typename Traits::Update ConfigCache<Traits>::MakeUpdate(const Delta& delta, int32_t operation, uint32_t type,
                                                        std::shared_ptr<const Value> value)
{
    Update update;
    update.entityType = delta.entity_type();
    Traits::SetId(delta, update);
    update.operation = operation;
    update.type = type;
    update.value = std::move(value);
    return update;
}

template class ConfigCache<LocalConfigTraits>;
template class ConfigCache<RemoteConfigTraits>;

}  // namespace FenREL
