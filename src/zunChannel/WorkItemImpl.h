#pragma once

#include <boost/core/noncopyable.hpp>
#include <boost/intrusive_ptr.hpp>

#include "Assert.h"
#include "WorkItem.h"

namespace ZUNChannel {

// Calls a member of T on a WorkGroup thread. The item holds a reference, so a
// queued item keeps its object alive after every other reference is gone.
template <typename T>
class WorkItemImpl : public WorkItem, private boost::noncopyable {
public:
    using Member = void (T::*)();

    WorkItemImpl(const boost::intrusive_ptr<T>& object, Member member)
        : _member(member), _object(object)
    {
    }

    void Run() override
    {
        ASSERT(_object);
        ((*_object).*_member)();
    }

private:
    Member _member;
    boost::intrusive_ptr<T> _object;
};

}  // namespace ZUNChannel
