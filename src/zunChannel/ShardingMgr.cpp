#include "ShardingMgr.h"

#include "AppManager.h"
#include "Assert.h"
#include "GlobalLock.h"
#include "Logger.h"
#include "ShardingElemID.h"

namespace ZUNChannel {

namespace {
boost::intrusive_ptr<ShardingMgr> s_shardingMgr;
}  // namespace

void ShardingMgr::Init()
{
    ASSERT(!s_shardingMgr);
    s_shardingMgr.reset(new ShardingMgr());
    s_shardingMgr->_checkTimer =
        AsyncTimer<ShardingMgr>::Create(s_shardingMgr.get(), &ShardingMgr::OnCheckTimer);
    s_shardingMgr->_checkTimer->Start(kCheckIntervalUs);
}

boost::intrusive_ptr<ShardingMgr> ShardingMgr::Get()
{
    ASSERT(s_shardingMgr);
    return s_shardingMgr;
}

void ShardingMgr::Destroy()
{
    if (s_shardingMgr && s_shardingMgr->_checkTimer) {
        s_shardingMgr->_checkTimer->Stop();
        s_shardingMgr->_checkTimer.reset();
    }
    s_shardingMgr.reset();
}

bool ShardingMgr::SetSliceLength(uint32_t length)
{
    ASSERT(IsLockAvailable());
    // Zero is no length at all: it is refused as too small even before the
    // first hello, when it equals the unset length.
    if (length == _sliceLength && length != 0) {
        return true;
    }
    if (length < kMinSliceLength) {
        FLOG_VERBOSE("sharding slice length %1 is too small, the min length is %2", length, kMinSliceLength);
        return false;
    }
    if (((length - 1) & length) != 0) {
        FLOG_VERBOSE("sharding slice length %1 is not power of 2", length);
        return false;
    }
    _sliceLength = length;
    _shift = 0;
    for (uint32_t value = length; value > 1; value >>= 1) {
        ++_shift;
    }
    _slices.assign(static_cast<size_t>((uint64_t(1) << 32) >> _shift), std::string());
    FLOG_VERBOSE("sharding slice length is set to %1", length);
    return true;
}

bool ShardingMgr::UpdateSegments(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments)
{
    ASSERT(IsLockAvailable());
    if (_slices.empty()) {
        FLOG_VERBOSE("update sharding before slice array is created");
        return false;
    }
    for (const auto& segment : segments) {
        const uint64_t end = uint64_t(segment->startID) + segment->num;
        if (end > _slices.size()) {
            FLOG_VERBOSE("sharding segment (startID %1/num %2) exceeds the slice array boundary(len %3)",
                         segment->startID, segment->num, _slices.size());
            return false;
        }
        for (uint64_t slice = segment->startID; slice < end; ++slice) {
            _slices[slice] = segment->controller;
        }
    }
    return true;
}

std::string ShardingMgr::GetController(uint32_t id) const
{
    ASSERT(IsLockAvailable());
    if (_slices.empty()) {
        return std::string();
    }
    return _slices[id >> _shift];
}

uint32_t ShardingMgr::GetSliceIndex(uint32_t id) const
{
    return _slices.empty() ? 0 : id >> _shift;
}

bool ShardingMgr::IsElemInSegments(const std::vector<boost::intrusive_ptr<ShardingSegment>>& segments,
                                   const ShardingElemID& elem) const
{
    const uint32_t slice = GetSliceIndex(elem.GetId());
    const ConnKey* controller = elem.GetController();
    const std::string current = controller != nullptr ? controller->server : std::string();
    for (const auto& segment : segments) {
        if (segment->controller == current && segment->startID <= slice &&
            uint64_t(segment->startID) + segment->num >= slice) {
            return true;
        }
    }
    return false;
}

void ShardingMgr::CopySlices(std::vector<std::string>& out) const
{
    out.insert(out.end(), _slices.begin(), _slices.end());
}

void ShardingMgr::Dump() const
{
    ASSERT(IsLockAvailable());
    for (size_t slice = 0; slice < _slices.size(); ++slice) {
        const uint64_t first = uint64_t(slice) << _shift;
        const uint64_t last = first + _sliceLength - 1;
        FLOG_TRIVIA("slice %1(sid %2-%3), controller %4 ", slice, first, last, _slices[slice]);
    }
}

void ShardingMgr::OnCheckTimer()
{
    GlobalLockGuard lock;
    AppManager::Get()->CheckSessions();
    _checkTimer->Start(kCheckIntervalUs);
}

}  // namespace ZUNChannel
