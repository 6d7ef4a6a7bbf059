#pragma once

#include <cstdint>
#include <string>

typedef struct x509_st X509;

namespace ZUNChannel {

// One controller as configured: where it is, and the certificate that pins it
// when TLS is on. The certificate is owned and duplicated on copy.
class ConnConfig {
public:
    ConnConfig() = default;
    ConnConfig(std::string server, int32_t port, std::string peername, X509* certificate,
               bool sslEnabled);  // takes ownership of `certificate`
    ConnConfig(const ConnConfig& other);
    ConnConfig& operator=(const ConnConfig& other);
    virtual ~ConnConfig();

    // "server:port:peername:ssl enabled" or "...:ssl disabled".
    virtual std::string ToString() const;

    // Same address, port, name, TLS flag and certificate (by X509_cmp; both
    // absent counts as equal, one absent as different).
    bool SameAs(const ConnConfig& other) const;

    // Replaces the certificate, taking ownership.
    void SetCertificate(X509* certificate);

    std::string server;
    int32_t port = 0;
    std::string peername;
    X509* certificate = nullptr;
    bool sslEnabled = false;
};

// True when both are absent, or both present and equal by X509_cmp.
bool SameCertificate(const X509* a, const X509* b);

}  // namespace ZUNChannel
