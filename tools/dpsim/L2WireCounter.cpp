#include "L2WireCounter.h"

#include <google/protobuf/io/coded_stream.h>

namespace DpSim {

namespace {

using google::protobuf::io::CodedInputStream;
namespace l2 = com::corvid::zun::l2;

// Tags: field number << 3 | wire type (0 varint, 2 length-delimited).
constexpr uint32_t kL2UpdateTag = 5 << 3 | 2;        // LcpDpMsg.l2_update
constexpr uint32_t kMappingUpdateTag = 1 << 3 | 2;   // L2UpdateMsg.mapping_update
constexpr uint32_t kTypeTag = 1 << 3;                // L2MappingUpdateMsg.type
constexpr uint32_t kVnInstanceTag = 2 << 3 | 2;      // L2MappingUpdateMsg.vn_instance
constexpr uint32_t kItemsTag = 11 << 3 | 2;          // L2MappingUpdateMsg.items
constexpr uint32_t kSwitchIdTag = 1 << 3;            // VnInstanceMsg.transport_switch_id
constexpr uint32_t kVniTag = 2 << 3;                 // VnInstanceMsg.vni
constexpr uint32_t kOpTag = 1 << 3;                  // L2UpdateMappingItemMsg.op

// Skips the value of a field whose tag was just read; groups are refused.
bool SkipValue(CodedInputStream& in, uint32_t tag)
{
    uint64_t varint;
    uint32_t length;
    switch (tag & 7) {
    case 0:
        return in.ReadVarint64(&varint);
    case 1:
        return in.Skip(8);
    case 2:
        return in.ReadVarint32(&length) && in.Skip(static_cast<int>(length));
    case 5:
        return in.Skip(4);
    default:
        return false;
    }
}

// Reads a length-delimited value with `read`, which must consume it all.
template <typename Read>
bool ReadNested(CodedInputStream& in, Read read)
{
    uint32_t length;
    if (!in.ReadVarint32(&length) || length > static_cast<uint32_t>(in.BytesUntilLimit())) {
        return false;
    }
    const CodedInputStream::Limit limit = in.PushLimit(static_cast<int>(length));
    const bool ok = read() && in.BytesUntilLimit() == 0;
    in.PopLimit(limit);
    return ok;
}

// Calls `field(tag, at)` for each field up to the current limit, `at` the
// position of its tag; `field` reads or skips the value.
template <typename Field>
bool ForEachField(CodedInputStream& in, Field field)
{
    while (in.BytesUntilLimit() > 0) {
        const int at = in.CurrentPosition();
        const uint32_t tag = in.ReadTag();
        if (tag == 0 || !field(tag, at)) {
            return false;  // a zero or truncated tag, or a bad value
        }
    }
    return true;
}

// A value of an enum field as the parser takes it: an unknown number leaves
// the field as it was.
template <typename IsValid>
bool ReadEnum(CodedInputStream& in, IsValid isValid, int32_t& value, bool* present = nullptr)
{
    uint32_t number;
    if (!in.ReadVarint32(&number)) {
        return false;
    }
    if (isValid(static_cast<int>(number))) {
        value = static_cast<int32_t>(number);
        if (present != nullptr) {
            *present = true;
        }
    }
    return true;
}

bool ReadItem(CodedInputStream& in, L2View::MappingCount& mapping)
{
    int32_t op = l2::L2UpdateMappingItemMsg::ADD;
    const bool ok = ForEachField(in, [&](uint32_t tag, int) {
        return tag == kOpTag ? ReadEnum(in, l2::L2UpdateMappingItemMsg::Operation_IsValid, op) : SkipValue(in, tag);
    });
    const bool del = op == l2::L2UpdateMappingItemMsg::DEL;
    if (mapping.adds + mapping.dels == 0) {
        mapping.firstIsDel = del;
    }
    ++(del ? mapping.dels : mapping.adds);
    return ok;
}

bool ReadMapping(CodedInputStream& in, L2View::MappingCount& mapping)
{
    int32_t type = 0;
    bool typed = false;
    const bool ok = ForEachField(in, [&](uint32_t tag, int) {
        switch (tag) {
        case kTypeTag:
            return ReadEnum(in, l2::L2MappingUpdateMsg::Type_IsValid, type, &typed);
        case kVnInstanceTag:
            return ReadNested(in, [&] {
                return ForEachField(in, [&](uint32_t inner, int) {
                    if (inner == kSwitchIdTag || inner == kVniTag) {
                        return in.ReadVarint32(inner == kVniTag ? &mapping.vni : &mapping.switchId);
                    }
                    return SkipValue(in, inner);
                });
            });
        case kItemsTag:
            return ReadNested(in, [&] { return ReadItem(in, mapping); });
        default:
            return SkipValue(in, tag);
        }
    });
    if (typed) {
        mapping.type = type;
    }
    return ok;
}

}  // namespace

bool L2WireCounter::Read(const uint8_t* body, size_t size)
{
    _hasL2 = false;
    _mappings.clear();
    _rest.clear();
    CodedInputStream in(body, static_cast<int>(size));
    in.PushLimit(static_cast<int>(size));
    return ForEachField(in, [&](uint32_t tag, int at) {
        if (tag == kL2UpdateTag) {
            _hasL2 = true;
            return ReadNested(in, [&] {
                // Anything but mapping updates is left to the parser.
                return ForEachField(in, [&](uint32_t inner, int) {
                    return inner == kMappingUpdateTag &&
                           ReadNested(in, [&] { return ReadMapping(in, _mappings.emplace_back()); });
                });
            });
        }
        // Every other field is kept, tag and value, for the parser.
        if (!SkipValue(in, tag)) {
            return false;
        }
        _rest.append(reinterpret_cast<const char*>(body) + at, static_cast<size_t>(in.CurrentPosition() - at));
        return true;
    });
}

}  // namespace DpSim
