#pragma once

#include <string>

typedef struct x509_st X509;

namespace FenRELTest {

// A self-signed certificate and its key, made at test time with OpenSSL.
class TestCertificate {
public:
    explicit TestCertificate(const std::string& commonName);
    ~TestCertificate();
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    const std::string& CertPem() const { return _certPem; }
    const std::string& KeyPem() const { return _keyPem; }
    // Owned by this object.
    const X509* Cert() const { return _cert; }

private:
    X509* _cert = nullptr;
    std::string _certPem;
    std::string _keyPem;
};

}  // namespace FenRELTest
