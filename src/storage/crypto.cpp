#include "storage/crypto.h"

#include <cstdlib>

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

namespace vondle::storage {
namespace {

const unsigned char* bytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}
unsigned char* bytesOf(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

constexpr std::size_t SHA256_BYTES = 32;

// libcrypto fails here only when it has no memory or was built without the algorithm.
void require(bool done) {
  if (!done) std::abort();
}

}  // namespace

std::string hexadecimal(std::string_view bytes) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    out += DIGITS[byte >> 4];
    out += DIGITS[byte & 15];
  }
  return out;
}

std::string sha256(std::string_view bytes) {
  Sha256 hasher;
  hasher.add(bytes);
  return hasher.finish();
}

std::string hmacSha256(std::string_view secret, std::string_view text) {
  std::string out(SHA256_BYTES, '\0');
  unsigned length = 0;
  require(HMAC(EVP_sha256(), secret.data(), static_cast<int>(secret.size()), bytesOf(text), text.size(), bytesOf(out),
               &length) != nullptr &&
          length == SHA256_BYTES);
  return out;
}

bool equalInConstantTime(std::string_view a, std::string_view b) {
  return a.size() == b.size() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

std::string randomBytes(std::size_t count) {
  std::string out(count, '\0');
  require(RAND_bytes(bytesOf(out), static_cast<int>(count)) == 1);
  return out;
}

std::string randomName() {
  return hexadecimal(randomBytes(16));
}

void Sha256::Free::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

Sha256::Sha256() : context_(EVP_MD_CTX_new()) {
  require(context_ && EVP_DigestInit_ex(context_.get(), EVP_sha256(), nullptr) == 1);
}

void Sha256::add(std::string_view bytes) {
  require(EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size()) == 1);
}

std::string Sha256::finish() {
  std::string out(SHA256_BYTES, '\0');
  unsigned length = 0;
  require(EVP_DigestFinal_ex(context_.get(), bytesOf(out), &length) == 1 && length == SHA256_BYTES);
  return out;
}

}  // namespace vondle::storage
