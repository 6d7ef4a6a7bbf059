// Fuzz target of the management plane's controller list: the input is the
// payload of an MpLcpMsg as the proxy client hands it over, received against
// the base controller file. A message with any invalid entry must change
// neither the list nor the file; a valid one must leave one entry per
// controller it names, with the TLS flag and certificate of its last mention,
// and a file that loads back to exactly that list.

#include <cstdint>
#include <string>

#include <openssl/x509.h>

#include "ConfigManager.h"
#include "ConfigManagerFuzzFixture.h"
#include "FuzzSupport.h"
#include "mp_lcp_config.pb.h"

namespace {

using FenREL::ConfigManager;
using FenRELTest::ConfigManagerFuzzFixture;
namespace cfg = com::corvid::zun::config;

std::string Ipv4Text(uint32_t address)
{
    return std::to_string(address >> 24) + "." + std::to_string((address >> 16) & 0xff) + "." +
           std::to_string((address >> 8) & 0xff) + "." + std::to_string(address & 0xff);
}

// What a message should leave behind; false when it must be refused.
bool Expected(const uint8_t* data, size_t size, ConfigManagerFuzzFixture::ControllerMap& out)
{
    cfg::MpLcpMsg message;
    if (!message.ParseFromArray(data, static_cast<int>(size)) || !message.has_update()) {
        return false;
    }
    for (const cfg::ControllerInfoMsg& info : message.update().controller_list()) {
        if (!info.has_ip() || !info.ip().has_ipv4() || !info.has_port() || !info.has_ssl_enabled()) {
            return false;
        }
        ConfigManagerFuzzFixture::Controller controller;
        controller.sslEnabled = info.ssl_enabled();
        if (info.ssl_enabled()) {
            X509* certificate = info.has_certificate() ? ConfigManager::PemToX509(info.certificate()) : nullptr;
            const bool printed = ConfigManager::X509ToPem(certificate, controller.certificatePem);
            X509_free(certificate);
            if (!printed) {
                return false;
            }
        }
        out[Ipv4Text(info.ip().ipv4()) + ":" + std::to_string(static_cast<int32_t>(info.port()))] = controller;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ConfigManagerFuzzFixture& fixture = ConfigManagerFuzzFixture::Get();
    FenRELTest::RunFuzzInput([&] {
        fixture.LoadBase();
        ConfigManagerFuzzFixture::ControllerMap before;
        FUZZ_CHECK(fixture.CurrentControllers(before));
        const std::string fileBefore = fixture.ReadControllerFile();

        ConfigManagerFuzzFixture::ControllerMap expected;
        const bool valid = Expected(data, size, expected);
        fixture.Manager().HandleProxyMessage(ConfigManager::kControllerInfoTypeName, data, size);

        ConfigManagerFuzzFixture::ControllerMap after;
        FUZZ_CHECK(fixture.CurrentControllers(after));
        if (!valid) {
            FUZZ_CHECK(after == before);
            FUZZ_CHECK(fixture.ReadControllerFile() == fileBefore);
            return;
        }
        for (const FenREL::KelConnConfig& conn : fixture.Manager().GetConnections()) {
            FUZZ_CHECK(conn.updatedByKel);
        }
        FUZZ_CHECK(after.size() == expected.size());
        FUZZ_CHECK(fixture.ReloadGives(expected));
    });
    return 0;
}
