#include "storage/accounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include <fmt/format.h>

#include "storage/crypto.h"
#include "storage/names.h"

namespace vondle::storage {
namespace {

constexpr std::string_view ERROR_DOMAIN = "VondleStorageError";

Error unusable(const std::string& path, std::string_view why) {
  return {ERROR_DOMAIN, 0, fmt::format("the key file {} {}", path, why)};
}

}  // namespace

std::string hashOfKey(std::string_view key) {
  return hexadecimal(sha256(key));
}

Result<std::string> readKeyFile(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (descriptor < 0) {
    return failure(errno == ENOENT ? unusable(path,
                                              "is missing; make one with: (umask 077; head -c 24 /dev/urandom | "
                                              "base64 > FILE)")
                                   : Error::posix(errno, "cannot open the key file " + path));
  }
  struct stat found{};
  std::string text(MAX_KEY_LENGTH + 2, '\0');
  const bool examined = ::fstat(descriptor, &found) == 0;
  const ssize_t count = ::read(descriptor, text.data(), text.size());
  const int error = errno;
  ::close(descriptor);
  if (!examined || count < 0) return failure(Error::posix(error, "cannot read the key file " + path));
  if (!S_ISREG(found.st_mode)) return failure(unusable(path, "is not a file"));
  if ((found.st_mode & 077) != 0)
    return failure(unusable(path, "can be read by others; make it private with: chmod 600 " + path));

  text.resize(static_cast<std::size_t>(count));
  text = text.substr(0, text.find('\n'));
  const auto isBlank = [](char c) { return c == ' ' || c == '\t' || c == '\r'; };
  while (!text.empty() && isBlank(text.back())) text.pop_back();
  text.erase(0, static_cast<std::size_t>(std::ranges::find_if_not(text, isBlank) - text.begin()));
  if (text.size() < MIN_KEY_LENGTH) return failure(unusable(path, "holds a key of less than 16 characters"));
  if (text.size() > MAX_KEY_LENGTH) return failure(unusable(path, "holds a key of more than 1024 characters"));
  if (!std::ranges::all_of(text, [](char c) { return c > 0x20 && c < 0x7f; }))
    return failure(unusable(path, "holds a key with other characters than printable ASCII"));
  return text;
}

Answer<Account> setAccount(MetadataStore& store, std::string_view name, std::string_view key, std::int64_t now) {
  if (auto valid = checkName(name); !valid)
    return refuse(400, "the account's name is not usable: " + valid.error().text);
  const std::string hash = hashOfKey(key);
  return store.write<Account>([&]() -> Answer<Account> {
    if (const auto other = store.accountWithKey(hash); other && other->name != name)
      return refuse(409, fmt::format("the accounts {} and {} have the same key; give each its own", other->name, name));
    const auto existing = store.accountNamed(name);
    if (existing) store.setKey(existing->id, hash);
    const AccountId id = existing ? existing->id : store.addAccount(name, hash, now);
    const auto account = store.account(id);
    if (!account) return refuse(500, "the account could not be made");
    return *account;
  });
}

}  // namespace vondle::storage
