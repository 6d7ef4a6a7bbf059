#pragma once

namespace ZUNChannel {

// A unit of work for the WorkGroup.
class WorkItem {
public:
    virtual ~WorkItem() = default;
    virtual void Run() = 0;
};

}  // namespace ZUNChannel
