#include "testing/keychain_contract_test.h"

#include <cstdlib>
#include <filesystem>

#include "platform/linux/libsecret_keychain.h"
#include "testing/simulated_keychain.h"
#include "testing/virtual_scheduler.h"

// libsecret's file backend forgets a text at each write. Leaks of ours show in keyring_test, over the real keyring.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
  return "leak:g_malloc";
}

// GLib's own locks are invisible to the sanitizer.
extern "C" const char* __tsan_default_suppressions() {  // NOLINT(bugprone-reserved-identifier): the sanitizer's name
  return "called_from_lib:libglib-2.0.so\ncalled_from_lib:libgio-2.0.so\ncalled_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libsecret-1.so\n";
}

namespace vondle {
namespace {

struct Simulated {
  SimulatedKeychain simulated;
  Keychain& keychain() { return simulated; }
};

// Points libsecret at its own file backend, for the life of this process: no bus, no daemon.
class SecretFileBackend {
 public:
  SecretFileBackend() {
    std::string folder = std::filesystem::temp_directory_path() / "vondle-keychain-XXXXXX";
    folder_ = mkdtemp(folder.data());
    setenv("SECRET_BACKEND", "file", 1);
    setenv("SECRET_FILE_TEST_PATH", (folder_ / "keyring").c_str(), 1);
    setenv("SECRET_FILE_TEST_PASSWORD", "password", 1);
  }
  ~SecretFileBackend() { std::filesystem::remove_all(folder_); }
  SecretFileBackend(const SecretFileBackend&) = delete;
  SecretFileBackend& operator=(const SecretFileBackend&) = delete;

 private:
  std::filesystem::path folder_;
};

class SecretFile {
 public:
  SecretFile() { static const SecretFileBackend BACKEND; }
  ~SecretFile() { real_.remove("com.example.key", "group.com.example"); }
  Keychain& keychain() { return real_; }

 private:
  VirtualScheduler clock_;
  LibsecretKeychain real_{clock_};
};

using Keychains = testing::Types<SecretFile, Simulated>;
INSTANTIATE_TYPED_TEST_SUITE_P(Unit, KeychainContract, Keychains);

TEST(SimulatedKeychain, AnswersNothingWhileItIsNotAvailable) {
  SimulatedKeychain keychain;
  const Keychain::Item item{.service = "s", .accessGroup = "g", .account = "a", .label = "l", .data = "d"};
  ASSERT_EQ(keychain.add(item), KEYCHAIN_SUCCESS);
  keychain.setAvailable(false);
  EXPECT_EQ(keychain.copyMatching("s", "g").status, KEYCHAIN_NOT_AVAILABLE);
  EXPECT_EQ(keychain.add(item), KEYCHAIN_NOT_AVAILABLE);
  EXPECT_EQ(keychain.remove("s", "g"), KEYCHAIN_NOT_AVAILABLE);
  keychain.setAvailable(true);
  EXPECT_EQ(keychain.items().size(), 1U);
}

}  // namespace
}  // namespace vondle
