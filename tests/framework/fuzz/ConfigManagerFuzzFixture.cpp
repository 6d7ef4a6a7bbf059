#include "ConfigManagerFuzzFixture.h"

#include <fstream>
#include <sstream>

#include <boost/filesystem.hpp>

#include "Configuration.h"
#include "CtrlConnPool.h"
#include "GlobalLock.h"
#include "LogLevel.h"
#include "MainConfigXml.h"

namespace FenRELTest {

const char* const ConfigManagerFuzzFixture::kCertA = R"pem(-----BEGIN CERTIFICATE-----
MIIBkDCCATWgAwIBAgIUdxZpJKGuhnreSWPcrlPYFWTsUfUwCgYIKoZIzj0EAwIw
HDEaMBgGA1UEAwwRZnV6ei1jb250cm9sbGVyLWEwIBcNMjYxMTIzMTEyMDQxWhgP
MjEyNjEwMzAxMTIwNDFaMBwxGjAYBgNVBAMMEWZ1enotY29udHJvbGxlci1hMFkw
EwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAE8Um/0ihOqY8j0txbhIpHL9uvNUwStx6p
br2eTFZyr1f7rE+Q9BEIF4K4JpB0mSUa+t7vGcRLqWZ7fpkhEOGp2aNTMFEwHQYD
VR0OBBYEFMMHg1za3XLl4YhEbpxaiNf/oUfzMB8GA1UdIwQYMBaAFMMHg1za3XLl
4YhEbpxaiNf/oUfzMA8GA1UdEwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSQAwRgIh
AM9gDxjTZ48AsbawTc6YkbXRDFMBKXWbmPDXBfAsCJWgAiEA7PVtVKevSy0kAN5d
lxTsbEm7QMvgZj8LC5634h4Vay4=
-----END CERTIFICATE-----
)pem";
const char* const ConfigManagerFuzzFixture::kCertB = R"pem(-----BEGIN CERTIFICATE-----
MIIBkDCCATWgAwIBAgIUR4KqoZfWKz0MZ9zjqcCTDHn9z8wwCgYIKoZIzj0EAwIw
HDEaMBgGA1UEAwwRZnV6ei1jb250cm9sbGVyLWIwIBcNMjYxMTIzMTEyMDQxWhgP
MjEyNjEwMzAxMTIwNDFaMBwxGjAYBgNVBAMMEWZ1enotY29udHJvbGxlci1iMFkw
EwYHKoZIzj0CAQYIKoZIzj0DAQcDQgAEXj864cGXusX50kCqZYSo+jYVU9LKNbJz
vxykoBpfk/qUXril6oAG6xw58cr55fIkhMNSlYcbr4s/MwJlkPGaLaNTMFEwHQYD
VR0OBBYEFIgOwtV/0Yn5YNq+BZDBGhB64uWvMB8GA1UdIwQYMBaAFIgOwtV/0Yn5
YNq+BZDBGhB64uWvMA8GA1UdEwEB/wQFMAMBAf8wCgYIKoZIzj0EAwIDSQAwRgIh
AKRO+sOTthXmyAsphY8CaMnhB1CDjVTmDisabGtm+UTJAiEAkznHq5unclu/bUFp
TROy0LYVlZZr3lX90Tobjv0LmRI=
-----END CERTIFICATE-----
)pem";

ConfigManagerFuzzFixture& ConfigManagerFuzzFixture::Get()
{
    static ConfigManagerFuzzFixture fixture;
    return fixture;
}

ConfigManagerFuzzFixture::ConfigManagerFuzzFixture()
{
    FenREL::g_logLevel = FenREL::LOGLEVEL_NONE;
    _controllerFile = _dir.File("zun/controller-info.xml");
    boost::filesystem::create_directories(_dir.File("zun"));
    MainConfigXml main;
    main.configManager = "<configFile>" + _controllerFile + "</configFile>";
    const std::string mainFile = _dir.Write("fenrel.xml", main.ToXml());
    ZUNChannel::GlobalLockGuard lock;
    ZUNChannel::CtrlConnPool::Init();
    FenREL::ConfigManager::Init(mainFile);
}

FenREL::ConfigManager& ConfigManagerFuzzFixture::Manager()
{
    return *FenREL::ConfigManager::Get();
}

void ConfigManagerFuzzFixture::Load(const std::string& content)
{
    {
        std::ofstream out(_controllerFile, std::ios::binary | std::ios::trunc);
        out << content;
    }
    ZUNChannel::Configuration::ClearNodeUuids();
    Manager().ConfigLoad();
}

void ConfigManagerFuzzFixture::LoadBase()
{
    Load(std::string("<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<config><connectionList>") +
         "<connection id=\"0\"><server>10.0.0.1</server><port>1234</port><sslEnabled>true</sslEnabled>" +
         "<pemKey>" + kCertA + "</pemKey></connection>" +
         "<connection id=\"1\"><server>10.0.0.2</server><port>1235</port><sslEnabled>false</sslEnabled>" +
         "</connection></connectionList></config>\n");
}

bool ConfigManagerFuzzFixture::CurrentControllers(ControllerMap& out)
{
    out.clear();
    for (const FenREL::KelConnConfig& conn : Manager().GetConnections()) {
        Controller controller;
        controller.sslEnabled = conn.sslEnabled;
        if (conn.sslEnabled && !FenREL::ConfigManager::X509ToPem(conn.certificate, controller.certificatePem)) {
            return false;
        }
        if (!out.emplace(conn.server + ":" + std::to_string(conn.port), controller).second) {
            return false;
        }
    }
    return true;
}

bool ConfigManagerFuzzFixture::ReloadGives(const ControllerMap& expected)
{
    ZUNChannel::Configuration::ClearNodeUuids();
    Manager().ConfigLoad();
    ControllerMap reloaded;
    return CurrentControllers(reloaded) && reloaded == expected;
}

std::string ConfigManagerFuzzFixture::ReadControllerFile() const
{
    std::ifstream in(_controllerFile, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace FenRELTest
