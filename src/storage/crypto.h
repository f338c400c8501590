#pragma once

#include <memory>
#include <string>
#include <string_view>

struct evp_md_ctx_st;

// The few cryptographic tools of the service, all by libcrypto. Any thread; a hasher belongs to one.
namespace vondle::storage {

// Lower-case hexadecimal digits.
std::string hexadecimal(std::string_view bytes);

std::string sha256(std::string_view bytes);                              // 32 bytes
std::string hmacSha256(std::string_view secret, std::string_view text);  // 32 bytes

// Takes the same time wherever the texts differ; texts of different lengths differ at once.
bool equalInConstantTime(std::string_view a, std::string_view b);

// Ends the process when the system has no random numbers.
std::string randomBytes(std::size_t count);
// An unguessable name of 32 hexadecimal digits.
std::string randomName();

// SHA-256 of bytes that arrive piece by piece.
class Sha256 {
 public:
  Sha256();
  void add(std::string_view bytes);
  std::string finish();  // 32 bytes; once

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Free> context_;
};

}  // namespace vondle::storage
