#pragma once

#include <cstdint>
#include <string>

#include "RefCounter.h"

namespace ZUNChannel {

// One controller's share of the slice array: `num` slices from `startID`
// (counted in slices, not identifiers).
class ShardingSegment : public RefCounter<ShardingSegment> {
public:
    ShardingSegment(std::string controllerAddress, uint32_t start, uint32_t count)
        : controller(std::move(controllerAddress)), startID(start), num(count)
    {
    }

    std::string controller;
    uint32_t startID;
    uint32_t num;
};

}  // namespace ZUNChannel
