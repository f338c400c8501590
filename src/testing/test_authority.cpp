#include "testing/test_authority.h"

#include <cstdio>
#include <stdexcept>
#include <utility>

#include <fmt/format.h>
#include <openssl/ec.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>

namespace vondle {
namespace {

constexpr long DAY = 86'400;

void require(bool condition) {
  if (!condition) throw std::runtime_error("the test authority can't make a certificate");
}

void addExtension(X509* certificate, X509* issuer, int name, const std::string& value) {
  X509V3_CTX context;
  X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
  X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, name, value.c_str());
  require(extension && X509_add_ext(certificate, extension, -1) == 1);
  X509_EXTENSION_free(extension);
}

X509* makeCertificate(const char* commonName, int serial, long validFrom, long validUntil, EVP_PKEY* key) {
  X509* certificate = X509_new();
  require(certificate && X509_set_version(certificate, 2) == 1);
  ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial);
  X509_gmtime_adj(X509_getm_notBefore(certificate), validFrom);
  X509_gmtime_adj(X509_getm_notAfter(certificate), validUntil);
  X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(commonName), -1, -1, 0);
  require(X509_set_pubkey(certificate, key) == 1);
  return certificate;
}

void writeCertificate(const std::string& path, X509* certificate) {
  std::FILE* file = std::fopen(path.c_str(), "w");
  require(file && PEM_write_X509(file, certificate) == 1);
  std::fclose(file);
}

void writeKey(const std::string& path, EVP_PKEY* key) {
  std::FILE* file = std::fopen(path.c_str(), "w");
  require(file && PEM_write_PrivateKey(file, key, nullptr, nullptr, 0, nullptr, nullptr) == 1);
  std::fclose(file);
}

}  // namespace

TestAuthority::TestAuthority(std::string folder)
    : folder_(std::move(folder)), key_(EVP_EC_gen("P-256"), &EVP_PKEY_free), certificate_(nullptr, &X509_free) {
  certificate_.reset(makeCertificate("Vondle test authority", serial_++, -2 * DAY, 2 * DAY, key_.get()));
  X509_set_issuer_name(certificate_.get(), X509_get_subject_name(certificate_.get()));
  addExtension(certificate_.get(), certificate_.get(), NID_basic_constraints, "critical,CA:TRUE");
  require(X509_sign(certificate_.get(), key_.get(), EVP_sha256()) != 0);
  writeCertificate(caFile(), certificate_.get());
}

std::string TestAuthority::caFile() const {
  return folder_ + "/authority.pem";
}

HttpTestServer::Identity TestAuthority::issue(std::string_view alternativeName, bool expired) {
  const HttpTestServer::Identity identity{.certificateFile = fmt::format("{}/server{}.pem", folder_, serial_),
                                          .keyFile = fmt::format("{}/server{}.key", folder_, serial_)};
  const Key key(EVP_EC_gen("P-256"), &EVP_PKEY_free);
  const Certificate certificate(
      makeCertificate("Vondle test server", serial_++, -2 * DAY, expired ? -DAY : 2 * DAY, key.get()), &X509_free);
  X509_set_issuer_name(certificate.get(), X509_get_subject_name(certificate_.get()));
  addExtension(certificate.get(), certificate_.get(), NID_subject_alt_name, std::string(alternativeName));
  require(X509_sign(certificate.get(), key_.get(), EVP_sha256()) != 0);
  writeCertificate(identity.certificateFile, certificate.get());
  writeKey(identity.keyFile, key.get());
  return identity;
}

}  // namespace vondle
