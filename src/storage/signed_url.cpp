#include "storage/signed_url.h"

#include "storage/count.h"
#include "storage/crypto.h"

namespace vondle::storage {

std::string SignedUrl::signature(std::string_view method, std::string_view path, std::string_view expires) const {
  std::string text(method);
  text += '\n';
  text += path;
  text += '\n';
  text += expires;
  return hexadecimal(hmacSha256(secret_, text));
}

std::string SignedUrl::sign(std::string_view method, std::string_view path, std::int64_t now) const {
  const std::string expires = std::to_string(now + lifetime_);
  return std::string(path) + "?expires=" + expires + "&signature=" + signature(method, path, expires);
}

bool SignedUrl::isValid(std::string_view method, std::string_view path, std::string_view expires,
                        std::string_view given, std::int64_t now) const {
  const auto until = countIn(expires);
  const bool genuine = equalInConstantTime(signature(method == "HEAD" ? "GET" : method, path, expires), given);
  return genuine && until && now < *until;
}

}  // namespace vondle::storage
