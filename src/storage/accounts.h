#pragma once

#include <string>
#include <string_view>

#include "base/error.h"
#include "storage/metadata_store.h"

namespace vondle::storage {

// Shorter keys could be guessed.
inline constexpr std::size_t MIN_KEY_LENGTH = 16;
inline constexpr std::size_t MAX_KEY_LENGTH = 1024;

// Keys are stored as SHA-256 only: they are long random texts, which no table of hashes covers.
std::string hashOfKey(std::string_view key);

// The key in a file that only its owner can read: the first line, without blanks around it. Printable ASCII.
Result<std::string> readKeyFile(const std::string& path);

// Makes the account, or gives an existing one this key.
Answer<Account> setAccount(MetadataStore& store, std::string_view name, std::string_view key, std::int64_t now);

}  // namespace vondle::storage
