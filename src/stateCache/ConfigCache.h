#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "ConfigCacheRecords.h"

namespace FenREL {

// One half of StateCacheConfigTable: the items of the entities of one side
// and the atomic update that turns a batch of deltas into the list of what
// changed. The local and the remote cache share it; Traits
// (ConfigCacheTraits.h) says what differs.
//
// Layout. An entity is one node of a map ordered by the entity's key (its id
// bytes), which is the order a whole cache is walked in. Its items, the
// marker (type 0, no value) and one per state or property, are a small
// vector in the order they came. An item keeps its value once, as the
// serialised message: comparing bytes decides whether a value changed, and the
// message an observer or a query gets is made from the bytes when needed.
// Items by version (the sweep) and by entity type (the scan for a port) are
// walks: a full sync restates the whole configuration, so its cost is of
// that order anyway, and the scans serve the CLI.
//
// No lock of its own: callers hold the global lock.
template <typename Traits>
class ConfigCache {
public:
    using Delta = typename Traits::Delta;
    using Value = typename Traits::Value;
    using Update = typename Traits::Update;
    using UpdateList = std::vector<Update>;
    using Item = ConfigCacheItem<Value>;

    enum class Lookup { NoEntity, NoValue, Found };

    ConfigCache() = default;
    ConfigCache(const ConfigCache&) = delete;
    ConfigCache& operator=(const ConfigCache&) = delete;

    // Applies a batch in order and appends what changed to `updates`. False
    // when the batch stopped part-way: what was applied stays, and nobody may
    // be told of it.
    bool AtomicUpdate(const std::vector<const Delta*>& deltas, bool fullSync, UpdateList& updates);

    // Removes every item of that full-sync version, telling each in the order
    // of the side (Traits::kMarkersFirstInSweep).
    void Sweep(uint32_t version, UpdateList& updates);

    // The value of one state or property.
    Lookup Find(std::string_view key, uint32_t type, Value& value) const;
    bool QueryEntity(std::string_view key, std::vector<Item>& items) const;
    void QueryAll(std::vector<Item>& items) const;
    // Calls visit(key, entityType, type, valueBytes) for each item in walk
    // order until it returns true; true if it did.
    bool FindIf(const std::function<bool(std::string_view, int32_t, uint32_t, std::string_view)>& visit) const;
    void Dump() const;

    uint32_t Version() const { return _version; }

private:
    // One item; bytes hold the serialised value, none for the marker.
    struct StoredItem {
        int32_t entityType = 0;
        uint32_t type = 0;
        uint32_t version = 0;
        uint32_t size = 0;
        std::unique_ptr<char[]> bytes;

        std::string_view Bytes() const { return std::string_view(bytes.get(), size); }
        void Assign(std::string_view value);
    };
    using Entity = std::vector<StoredItem>;
    using EntityMap = std::map<std::string, Entity, std::less<>>;

    bool Apply(const Delta& delta, bool fullSync, UpdateList& updates);
    void RemoveEntity(typename EntityMap::iterator entity, const Delta& delta, UpdateList& updates);
    bool CreateEntity(typename EntityMap::iterator entity, std::string_view key, const Delta& delta,
                      bool fullSync, UpdateList& updates);
    // Both return where the entity is now: end() once its last item went.
    typename EntityMap::iterator RemoveValue(typename EntityMap::iterator entity, const Delta& delta,
                                             uint32_t type, UpdateList& updates);
    typename EntityMap::iterator UpdateValue(typename EntityMap::iterator entity, std::string_view key,
                                             const Delta& delta, const Value& value, uint32_t type,
                                             bool fullSync, UpdateList& updates);
    static bool Unsupported(int32_t operation);
    Item CopyOut(std::string_view key, const StoredItem& item) const;
    static std::shared_ptr<const Value> Parse(const StoredItem& item);
    static Update MakeUpdate(const Delta& delta, int32_t operation, uint32_t type,
                             std::shared_ptr<const Value> value);

    EntityMap _entities;
    uint32_t _version = 0;
    std::string _key;    // the key of the delta being applied, when it has to be made
    std::string _value;  // the serialised value being compared
};

}  // namespace FenREL
