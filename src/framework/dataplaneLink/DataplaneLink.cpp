#include "DataplaneLink.h"

#include <utility>

namespace FenREL {

DataplaneLink::DataplaneLink(const std::string& path, ReceiveHandler receiveHandler, StatusHandler statusHandler,
                             LinkCheck linkCheck)
    : _receiveHandler(std::move(receiveHandler)),
      _statusHandler(std::move(statusHandler)),
      _linkCheck(std::move(linkCheck)),
      _path(path)
{
}

}  // namespace FenREL
