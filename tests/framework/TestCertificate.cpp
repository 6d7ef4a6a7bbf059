#include "TestCertificate.h"

#include <stdexcept>

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

namespace FenRELTest {

namespace {

std::string BioText(BIO* bio)
{
    char* data = nullptr;
    const long length = BIO_get_mem_data(bio, &data);
    std::string text(data, static_cast<size_t>(length));
    BIO_free(bio);
    return text;
}

}  // namespace

TestCertificate::TestCertificate(const std::string& commonName)
{
    EVP_PKEY* key = EVP_EC_gen("P-256");
    _cert = X509_new();
    if (key == nullptr || _cert == nullptr) {
        throw std::runtime_error("cannot make a test key");
    }
    X509_set_version(_cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(_cert), 1);
    X509_gmtime_adj(X509_getm_notBefore(_cert), 0);
    X509_gmtime_adj(X509_getm_notAfter(_cert), 3600L * 24 * 365);
    X509_NAME* name = X509_get_subject_name(_cert);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1, 0);
    X509_set_issuer_name(_cert, name);
    X509_set_pubkey(_cert, key);
    if (X509_sign(_cert, key, EVP_sha256()) == 0) {
        throw std::runtime_error("cannot sign a test certificate");
    }

    BIO* certBio = BIO_new(BIO_s_mem());
    PEM_write_bio_X509(certBio, _cert);
    _certPem = BioText(certBio);
    BIO* keyBio = BIO_new(BIO_s_mem());
    PEM_write_bio_PrivateKey(keyBio, key, nullptr, nullptr, 0, nullptr, nullptr);
    _keyPem = BioText(keyBio);
    EVP_PKEY_free(key);
}

TestCertificate::~TestCertificate()
{
    X509_free(_cert);
}

}  // namespace FenRELTest
