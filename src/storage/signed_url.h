#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace vondle::storage {

// Addresses that carry their own permission: one method on one path until a moment. The signature is the HMAC-SHA256 of
// the three under the service's secret, so that nothing needs to be stored. Any thread.
class SignedUrl {
 public:
  // `lifetime`: seconds for which an address is good.
  SignedUrl(std::string secret, std::int64_t lifetime) : secret_(std::move(secret)), lifetime_(lifetime) {}

  // The path with "expires" and "signature"; `now` in seconds since 1970.
  [[nodiscard]] std::string sign(std::string_view method, std::string_view path, std::int64_t now) const;

  // A signature for GET is good for HEAD as well.
  [[nodiscard]] bool isValid(std::string_view method, std::string_view path, std::string_view expires,
                             std::string_view signature, std::int64_t now) const;

 private:
  [[nodiscard]] std::string signature(std::string_view method, std::string_view path, std::string_view expires) const;

  std::string secret_;
  std::int64_t lifetime_;
};

}  // namespace vondle::storage
