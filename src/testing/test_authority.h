#pragma once

#include <memory>
#include <string>
#include <string_view>

#include <openssl/evp.h>
#include <openssl/x509.h>

#include "testing/http_test_server.h"

namespace vondle {

// A certificate authority for one test, with its files in the folder given.
class TestAuthority {
 public:
  explicit TestAuthority(std::string folder);

  [[nodiscard]] std::string caFile() const;
  // A server's certificate for alternative names such as "IP:127.0.0.1" or "DNS:example.test"; one that is expired
  // ended yesterday.
  HttpTestServer::Identity issue(std::string_view alternativeName, bool expired = false);

 private:
  using Key = std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)>;
  using Certificate = std::unique_ptr<X509, decltype(&X509_free)>;

  const std::string folder_;
  int serial_ = 1;
  Key key_;
  Certificate certificate_;
};

}  // namespace vondle
