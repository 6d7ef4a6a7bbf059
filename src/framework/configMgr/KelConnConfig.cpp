#include "KelConnConfig.h"

#include <utility>

namespace FenREL {

KelConnConfig::KelConnConfig(std::string serverAddress, int32_t serverPort, std::string name,
                             X509* cert, bool ssl, bool updated)
    : ConnConfig(std::move(serverAddress), serverPort, std::move(name), cert, ssl),
      updatedByKel(updated)
{
}

std::string KelConnConfig::ToString() const
{
    std::string text = ConnConfig::ToString();
    if (updatedByKel) {
        text += "(updated by KEL)";
    }
    return text;
}

}  // namespace FenREL
