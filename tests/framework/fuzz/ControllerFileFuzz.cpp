// Fuzz target of the controller file: the input is the content of
// "controller-info.xml". Loading must give distinct entries, certificates
// only with TLS; then the loaded controllers that the management plane could
// state are received back as its list, and where the file had a `config`
// element the rewritten file must load back to exactly that list.

#include <arpa/inet.h>

#include <cstdint>
#include <exception>
#include <sstream>
#include <string>
#include <vector>

#include <boost/property_tree/ptree.hpp>
#include <boost/property_tree/xml_parser.hpp>

#include "ConfigManager.h"
#include "ConfigManagerFuzzFixture.h"
#include "FuzzSupport.h"
#include "mp_lcp_config.pb.h"

namespace {

using FenREL::ConfigManager;
using FenREL::KelConnConfig;
using FenRELTest::ConfigManagerFuzzFixture;
namespace cfg = com::corvid::zun::config;

// The address as the management plane sends it, if `server` is one in its
// canonical dotted form.
bool ParseIpv4(const std::string& server, uint32_t& address)
{
    in_addr parsed;
    if (inet_pton(AF_INET, server.c_str(), &parsed) != 1 || server.find('\0') != std::string::npos) {
        return false;
    }
    address = ntohl(parsed.s_addr);
    char text[INET_ADDRSTRLEN];
    return inet_ntop(AF_INET, &parsed, text, sizeof(text)) != nullptr && server == text;
}

bool HasConfigElement(const std::string& content)
{
    std::istringstream in(content);
    boost::property_tree::ptree tree;
    try {
        boost::property_tree::read_xml(in, tree, boost::property_tree::xml_parser::no_comments);
    } catch (const std::exception&) {
        return false;
    }
    return static_cast<bool>(tree.get_child_optional("config"));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    ConfigManagerFuzzFixture& fixture = ConfigManagerFuzzFixture::Get();
    FenRELTest::RunFuzzInput([&] {
        const std::string content(reinterpret_cast<const char*>(data), size);
        fixture.Load(content);
        const std::vector<KelConnConfig> loaded = fixture.Manager().GetConnections();

        cfg::MpLcpMsg message;
        cfg::MpLcpUpdateMsg* update = message.mutable_update();
        ConfigManagerFuzzFixture::ControllerMap expected;
        for (size_t i = 0; i < loaded.size(); ++i) {
            const KelConnConfig& conn = loaded[i];
            for (size_t j = 0; j < i; ++j) {
                FUZZ_CHECK(!loaded[j].SameAs(conn));
            }
            FUZZ_CHECK(conn.sslEnabled || conn.certificate == nullptr);
            FUZZ_CHECK(!conn.updatedByKel);

            uint32_t address = 0;
            ConfigManagerFuzzFixture::Controller controller;
            controller.sslEnabled = conn.sslEnabled;
            if (!ParseIpv4(conn.server, address) ||
                (conn.sslEnabled && !ConfigManager::X509ToPem(conn.certificate, controller.certificatePem))) {
                continue;
            }
            cfg::ControllerInfoMsg* info = update->add_controller_list();
            info->mutable_ip()->set_ipv4(address);
            info->set_port(static_cast<uint32_t>(conn.port));
            info->set_ssl_enabled(conn.sslEnabled);
            if (conn.sslEnabled) {
                info->set_certificate(controller.certificatePem);
            }
            expected[conn.server + ":" + std::to_string(conn.port)] = controller;
        }

        const std::string bytes = message.SerializeAsString();
        fixture.Manager().HandleProxyMessage(ConfigManager::kControllerInfoTypeName,
                                             reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ConfigManagerFuzzFixture::ControllerMap after;
        FUZZ_CHECK(fixture.CurrentControllers(after));
        FUZZ_CHECK(after.size() == expected.size());
        if (HasConfigElement(content)) {
            FUZZ_CHECK(fixture.ReloadGives(expected));
        }
    });
    return 0;
}
