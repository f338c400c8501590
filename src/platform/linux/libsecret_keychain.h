#pragma once

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/keychain.h"

namespace vondle {

// The user's keyring through the Secret Service, or libsecret's file backend where SECRET_BACKEND asks for it. Items
// carry the attributes service, access-group and account. Without a session bus the keyring is not even tried.
class LibsecretKeychain : public Keychain {
 public:
  static constexpr Duration DEADLINE = seconds(3);
  static constexpr Duration LEFT_ALONE = seconds(30);

  explicit LibsecretKeychain(const Clock& clock, Duration deadline = DEADLINE) : clock_(clock), deadline_(deadline) {}

  Found copyMatching(std::string_view service, std::string_view accessGroup) override;
  KeychainStatus add(const Item& item) override;
  KeychainStatus remove(std::string_view service, std::string_view accessGroup) override;
  std::optional<std::string> message(KeychainStatus status) override { return keychainMessage(status); }

 private:
  class Call;

  std::optional<Found> find(std::string_view service, std::string_view accessGroup);
  [[nodiscard]] bool isAvailable() EXCLUDES(lock_);
  void leaveAlone() EXCLUDES(lock_);

  const Clock& clock_;
  const Duration deadline_;
  Mutex lock_;
  MonotonicTime notBefore_ GUARDED_BY(lock_);
};

}  // namespace vondle
