#include "IoService.h"

namespace ZUNChannel {

boost::asio::io_context* IoService::Get()
{
    static boost::asio::io_context* service = new boost::asio::io_context();  // lives until exit
    return service;
}

}  // namespace ZUNChannel
