#include "IOWorker.h"

#include <boost/system/system_error.hpp>

#include "IoService.h"

namespace ZUNChannel {

IOWorker::IOWorker() : _guard(boost::asio::make_work_guard(*IoService::Get()))
{
}

IOWorker::~IOWorker()
{
    _guard.reset();
}

void IOWorker::Run()
{
    boost::system::error_code error;
    IoService::Get()->run(error);
    if (error) {
        throw boost::system::system_error(error);
    }
}

}  // namespace ZUNChannel
