#include "ConnConfig.h"

#include <openssl/x509.h>

namespace ZUNChannel {

ConnConfig::ConnConfig(std::string serverAddress, int32_t serverPort, std::string name,
                       X509* cert, bool ssl)
    : server(std::move(serverAddress)), port(serverPort), peername(std::move(name)),
      certificate(cert), sslEnabled(ssl)
{
}

ConnConfig::ConnConfig(const ConnConfig& other)
    : server(other.server), port(other.port), peername(other.peername),
      certificate(other.certificate != nullptr ? X509_dup(other.certificate) : nullptr),
      sslEnabled(other.sslEnabled)
{
}

ConnConfig& ConnConfig::operator=(const ConnConfig& other)
{
    if (this != &other) {
        server = other.server;
        port = other.port;
        peername = other.peername;
        sslEnabled = other.sslEnabled;
        SetCertificate(other.certificate != nullptr ? X509_dup(other.certificate) : nullptr);
    }
    return *this;
}

ConnConfig::~ConnConfig()
{
    X509_free(certificate);
}

void ConnConfig::SetCertificate(X509* cert)
{
    if (certificate != cert) {
        X509_free(certificate);
        certificate = cert;
    }
}

std::string ConnConfig::ToString() const
{
    return server + ":" + std::to_string(port) + ":" + peername + ":" +
           (sslEnabled ? "ssl enabled" : "ssl disabled");
}

bool SameCertificate(const X509* a, const X509* b)
{
    if (a == nullptr || b == nullptr) {
        return a == b;
    }
    return X509_cmp(a, b) == 0;
}

bool ConnConfig::SameAs(const ConnConfig& other) const
{
    return server == other.server && port == other.port && peername == other.peername &&
           sslEnabled == other.sslEnabled && SameCertificate(certificate, other.certificate);
}

}  // namespace ZUNChannel
