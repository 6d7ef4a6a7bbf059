#pragma once

#include <boost/asio/io_context.hpp>

namespace ZUNChannel {

// The single process-wide I/O service that runs every socket and timer of
// the channel; its threads are the IOWorkers taken from the WorkGroup.
class IoService {
public:
    static boost::asio::io_context* Get();
};

}  // namespace ZUNChannel
