#include "ConfigView.h"

#include <cstdio>

namespace DpSim {

namespace config = com::corvid::zun::config;

std::string ConfigView::Key(const com::corvid::zun::UuidMsg& id)
{
    char text[40];
    snprintf(text, sizeof(text), "%016llx:%016llx", static_cast<unsigned long long>(id.left()),
             static_cast<unsigned long long>(id.right()));
    return text;
}

void ConfigView::Apply(const config::ZunConfigDeltaMsg& delta)
{
    const std::string key = Key(delta.entity_id());
    if (delta.operation() == config::ZunConfigDeltaMsg::DELETE_OP) {
        if (delta.property_size() == 0) {
            _entities.erase(key);
            return;
        }
        auto it = _entities.find(key);
        if (it != _entities.end()) {
            for (const auto& property : delta.property()) {
                it->second.properties.erase(property.property_type());
            }
        }
        return;
    }
    Entity& entity = _entities[key];
    entity.type = delta.entity_type();
    for (const auto& property : delta.property()) {
        entity.properties[property.property_type()] = property;
    }
}

bool ConfigView::HasEntity(const com::corvid::zun::UuidMsg& id) const
{
    return FindEntity(id) != nullptr;
}

const ConfigView::Entity* ConfigView::FindEntity(const com::corvid::zun::UuidMsg& id) const
{
    auto it = _entities.find(Key(id));
    return it == _entities.end() ? nullptr : &it->second;
}

std::optional<config::EntityPropertyMsg> ConfigView::GetProperty(const com::corvid::zun::UuidMsg& id,
                                                                 int32_t propertyType) const
{
    const Entity* entity = FindEntity(id);
    if (entity == nullptr) {
        return std::nullopt;
    }
    auto it = entity->properties.find(propertyType);
    if (it == entity->properties.end()) {
        return std::nullopt;
    }
    return it->second;
}

std::string ConfigView::Describe() const
{
    std::string text;
    for (const auto& [key, entity] : _entities) {
        text += "entity " + key + " " +
                (config::EntityType_IsValid(entity.type)
                     ? config::EntityType_Name(static_cast<config::EntityType>(entity.type))
                     : "type " + std::to_string(entity.type));
        for (const auto& property : entity.properties) {
            text += " {" + property.second.ShortDebugString() + "}";
        }
        text += "\n";
    }
    return text;
}

}  // namespace DpSim
