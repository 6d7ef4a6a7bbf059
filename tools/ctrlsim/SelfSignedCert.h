#pragma once

#include <string>

namespace CtrlSim {

// A key and a self-signed certificate made by the `openssl` command, for a
// controller's or a host's identity in tests and the demo.
struct SelfSignedCert {
    std::string keyFile;   // <dir>/<name>-key.pem
    std::string certFile;  // <dir>/<name>-cert.pem
    std::string certPem;   // the certificate's text, as a controller list carries it

    // Runs `openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=<name>`
    // into `dir`, which must exist. Each call makes a new key, so two calls
    // give two distinct identities. Throws std::runtime_error on failure,
    // with what openssl said.
    static SelfSignedCert Make(const std::string& dir, const std::string& name);
};

}  // namespace CtrlSim
