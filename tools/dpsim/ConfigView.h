#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "ccp_lcp_config.pb.h"

namespace DpSim {

// The remote configuration as the data path holds it: entities by id, each
// with its type and its properties by property type.
//
// A delta applies as the data path realises it: DELETE_OP without
// properties removes the entity, DELETE_OP with properties removes those;
// UPDATE_OP without properties makes the entity known, with properties sets
// them.
class ConfigView {
public:
    struct Entity {
        int32_t type = 0;
        std::map<int32_t, com::corvid::zun::config::EntityPropertyMsg> properties;
    };

    void Apply(const com::corvid::zun::config::ZunConfigDeltaMsg& delta);
    void Clear() { _entities.clear(); }

    size_t EntityCount() const { return _entities.size(); }
    bool HasEntity(const com::corvid::zun::UuidMsg& id) const;
    const Entity* FindEntity(const com::corvid::zun::UuidMsg& id) const;
    std::optional<com::corvid::zun::config::EntityPropertyMsg> GetProperty(const com::corvid::zun::UuidMsg& id,
                                                                          int32_t propertyType) const;
    // One line per entity: "entity <left>:<right> LOG_SWITCH {<property>} ...".
    std::string Describe() const;

private:
    static std::string Key(const com::corvid::zun::UuidMsg& id);

    std::map<std::string, Entity> _entities;  // by "<left>:<right>" in hex
};

}  // namespace DpSim
