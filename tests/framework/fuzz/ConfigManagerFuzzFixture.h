#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "ConfigManager.h"
#include "TempDir.h"

namespace FenRELTest {

// The configuration manager of the fuzz targets: made once per process over a
// private directory, with a connection pool to hand its lists to and logging
// off. Its base controller file names 10.0.0.1:1234 with TLS and certificate
// A, and 10.0.0.2:1235 without TLS.
class ConfigManagerFuzzFixture {
public:
    // Two fixed certificates, so that committed inputs can carry them.
    static const char* const kCertA;
    static const char* const kCertB;

    static ConfigManagerFuzzFixture& Get();

    FenREL::ConfigManager& Manager();
    // Writes `content` as the controller file and loads it.
    void Load(const std::string& content);
    // Loads the base controller file.
    void LoadBase();
    std::string ReadControllerFile() const;

    // A controller as the management plane can state it.
    struct Controller {
        bool sslEnabled = false;
        std::string certificatePem;  // with TLS only

        bool operator==(const Controller& other) const
        {
            return sslEnabled == other.sslEnabled && certificatePem == other.certificatePem;
        }
    };
    // By "server:port".
    using ControllerMap = std::map<std::string, Controller>;

    // The manager's list as a map; false if it names a controller twice.
    bool CurrentControllers(ControllerMap& out);
    // Loads the file as the manager wrote it; true when it gives back exactly
    // `expected`, one entry per controller.
    bool ReloadGives(const ControllerMap& expected);

private:
    ConfigManagerFuzzFixture();

    TempDir _dir;
    std::string _controllerFile;
};

}  // namespace FenRELTest
