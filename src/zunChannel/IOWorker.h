#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>

#include "RefCounter.h"

namespace ZUNChannel {

// Keeps the I/O service's run alive on one WorkGroup thread: it holds a work
// guard, and its work item runs the service until the service stops. When the
// last IOWorker goes, so does the last guard.
class IOWorker : public RefCounter<IOWorker> {
public:
    IOWorker();
    ~IOWorker() override;

    // The body of the IOWorker's work item. A non-zero code from the service
    // is raised as an exception.
    void Run();

private:
    boost::asio::executor_work_guard<boost::asio::io_context::executor_type> _guard;
};

}  // namespace ZUNChannel
