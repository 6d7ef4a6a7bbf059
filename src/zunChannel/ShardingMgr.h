#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <boost/intrusive_ptr.hpp>

#include "AsyncTimer.h"
#include "RefCounter.h"
#include "ShardingSegment.h"

namespace ZUNChannel {

class ShardingElemID;

// Which controller serves which identifier. The 32-bit identifier space is cut
// into 2^32 / sliceLength equal slices; the controllers announce the slices
// they serve, and the controller of `id` is slices[id >> shift]. An empty
// string marks a slice that nobody serves.
//
// Every 5 s it has the multi-controller applications check their sessions.
// All under the global lock.
class ShardingMgr : public RefCounter<ShardingMgr> {
public:
    static constexpr uint32_t kMinSliceLength = 1u << 22;
    static constexpr int32_t kCheckIntervalUs = 5000000;

    static void Init();
    static boost::intrusive_ptr<ShardingMgr> Get();
    // Cancels the check timer and drops the manager (a failed start, tests).
    static void Destroy();

    // A length below 2^22 or not a power of two is refused and the old array
    // stays. A new length drops every assignment.
    bool SetSliceLength(uint32_t length);
    uint32_t GetSliceLength() const { return _sliceLength; }
    uint32_t GetSliceCount() const { return static_cast<uint32_t>(_slices.size()); }

    // Applies the segments in order; the first one beyond the array stops the
    // update with the earlier ones applied. Slices not named keep their controller.
    bool UpdateSegments(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments);

    // The controller of `id`; empty while the slice is unserved or no array exists.
    std::string GetController(uint32_t id) const;
    uint32_t GetSliceIndex(uint32_t id) const;
    // True when a segment of the element's current controller holds the
    // element's slice; the segment's upper bound is inclusive on purpose.
    bool IsElemInSegments(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments,
                          const ShardingElemID& elem) const;
    void CopySlices(std::vector<std::string>& out) const;
    void Dump() const;

    // The 5 s check: every multi-controller application checks its sessions.
    void OnCheckTimer();

private:
    ShardingMgr() = default;

    uint32_t _sliceLength = 0;
    uint32_t _shift = 0;
    std::vector<std::string> _slices;
    std::shared_ptr<AsyncTimer<ShardingMgr>> _checkTimer;
};

}  // namespace ZUNChannel
