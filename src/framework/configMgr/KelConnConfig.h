#pragma once

#include <cstdint>
#include <string>

#include "ConnConfig.h"

namespace FenREL {

// A controller as the configuration manager keeps it: the channel's entry plus
// whether the last controller list from the management plane named it. Entries
// without the mark are purged when such a list has been applied.
class KelConnConfig : public ZUNChannel::ConnConfig {
public:
    KelConnConfig() = default;
    KelConnConfig(std::string server, int32_t port, std::string peername, X509* certificate,
                  bool sslEnabled, bool updatedByKel = false);  // takes ownership of `certificate`

    // The channel's form, followed by "(updated by KEL)" when marked.
    std::string ToString() const override;

    bool updatedByKel = false;
};

}  // namespace FenREL
