#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "L2View.h"

namespace DpSim {

// Reads the L2 part of an LcpDpMsg straight from its bytes, for a data path
// that only counts L2 items (L2View::SetCountOnly): each mapping update comes
// out as an L2View::MappingCount, without the message being built. Parsing a
// load run's million items costs four allocations each; this walk reads
// their tags and operations.
//
// The walk checks the wire format down to each item's own fields (tags,
// lengths, varints); what an item's address holds is skipped unread. A
// message it is not made for (a routing VTEP update, a field of the L2
// update it does not know, groups) is refused, and the caller parses it.
class L2WireCounter {
public:
    // True when `body` is a well-formed LcpDpMsg whose L2 update, if it has
    // one, holds mapping updates only. Then the accessors describe it.
    bool Read(const uint8_t* body, size_t size);

    bool HasL2() const { return _hasL2; }
    // The mapping updates, in the message's order.
    const std::vector<L2View::MappingCount>& Mappings() const { return _mappings; }
    // The message's fields other than the L2 update, as bytes of an LcpDpMsg.
    const std::string& Rest() const { return _rest; }

private:
    bool _hasL2 = false;
    std::vector<L2View::MappingCount> _mappings;
    std::string _rest;
};

}  // namespace DpSim
