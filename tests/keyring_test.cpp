#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <thread>
#include <vector>

#include <libsecret/secret.h>

#include "platform/linux/libsecret_keychain.h"
#include "testing/keychain_contract_test.h"
#include "testing/virtual_scheduler.h"

// Run by keyring_test.sh: with an unlocked keyring of its own in a session bus of its own, and again without a bus.
// What locks the keyring runs last.

namespace vondle {
namespace {

struct Keyring {
  VirtualScheduler clock;
  LibsecretKeychain real{clock};
  ~Keyring() { real.remove("com.example.key", "group.com.example"); }
  Keychain& keychain() { return real; }
};
INSTANTIATE_TYPED_TEST_SUITE_P(SessionBus, KeychainContract, Keyring);

TEST(SharedKeyring, AnswersManyThreadsAtOnce) {
  VirtualScheduler clock;
  LibsecretKeychain keychain(clock);
  ASSERT_EQ(keychain.add({"s", "g", "a", "l", "d"}), KEYCHAIN_SUCCESS);
  std::atomic<int> found = 0;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int k = 0; k < 25; ++k) found += keychain.copyMatching("s", "g").data == "d" ? 1 : 0;
      });
    }
  }
  EXPECT_EQ(found, 200);
}

TEST(RestartedKeyring, IsFoundAgain) {
  VirtualScheduler clock;
  LibsecretKeychain keychain(clock);
  ASSERT_EQ(keychain.add({"s", "g", "a", "l", "d"}), KEYCHAIN_SUCCESS);
  ASSERT_EQ(keychain.copyMatching("s", "g").data, "d");
  ASSERT_EQ(
      std::system("printf 'password\\n' | gnome-keyring-daemon --replace --unlock --components=secrets >/dev/null"), 0);
  EXPECT_EQ(keychain.copyMatching("s", "g").data, "d");
}

TEST(LockedKeyring, IsNotAvailableAndNeverPrompts) {
  VirtualScheduler clock;
  LibsecretKeychain keychain(clock);
  const Keychain::Item item{.service = "s", .accessGroup = "g", .account = "a", .label = "l", .data = "d"};
  ASSERT_EQ(keychain.add(item), KEYCHAIN_SUCCESS);

  SecretService* service = secret_service_get_sync(SECRET_SERVICE_LOAD_COLLECTIONS, nullptr, nullptr);
  ASSERT_TRUE(service);
  GList* collections = secret_service_get_collections(service);
  EXPECT_GT(secret_service_lock_sync(service, collections, nullptr, nullptr, nullptr), 0);
  g_list_free_full(collections, g_object_unref);
  g_object_unref(service);

  EXPECT_EQ(keychain.copyMatching("s", "g").status, KEYCHAIN_NOT_AVAILABLE);
  EXPECT_EQ(keychain.add(item), KEYCHAIN_NOT_AVAILABLE);
  EXPECT_EQ(keychain.remove("s", "g"), KEYCHAIN_NOT_AVAILABLE);
}

// Takes connections, as the bus of a hung session does, and never says a word.
class SilentBus {
 public:
  SilentBus() {
    std::string folder = std::filesystem::temp_directory_path() / "vondle-bus-XXXXXX";
    folder_ = mkdtemp(folder.data());
    const std::string path = folder_ / "bus";
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    socket_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bind(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    listen(socket_, 8);
    setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
  }
  ~SilentBus() {
    close(socket_);
    std::filesystem::remove_all(folder_);
  }
  SilentBus(const SilentBus&) = delete;
  SilentBus& operator=(const SilentBus&) = delete;

 private:
  std::filesystem::path folder_;
  int socket_ = -1;
};

TEST(NoSessionBus, ReadsAsNoKeyring) {
  unsetenv("DBUS_SESSION_BUS_ADDRESS");
  unsetenv("XDG_RUNTIME_DIR");
  VirtualScheduler clock;
  LibsecretKeychain keychain(clock);
  EXPECT_EQ(keychain.copyMatching("s", "g").status, KEYCHAIN_NOT_AVAILABLE);
  EXPECT_EQ(keychain.add({"s", "g", "a", "l", "d"}), KEYCHAIN_NOT_AVAILABLE);
  EXPECT_EQ(keychain.remove("s", "g"), KEYCHAIN_NOT_AVAILABLE);
}

TEST(SilentSessionBus, IsGivenUpAndThenLeftAloneForAWhile) {
  const SilentBus bus;
  VirtualScheduler clock;
  constexpr Duration DEADLINE = std::chrono::milliseconds(200);
  LibsecretKeychain keychain(clock, DEADLINE);
  const auto lookUpTakes = [&] {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(keychain.copyMatching("s", "g").status, KEYCHAIN_NOT_AVAILABLE);
    return std::chrono::steady_clock::now() - start;
  };
  EXPECT_GE(lookUpTakes(), DEADLINE);
  clock.advance(LibsecretKeychain::LEFT_ALONE - Duration(1));
  EXPECT_LT(lookUpTakes(), DEADLINE);
  clock.advance(Duration(1));
  bool asksTheBusAgain = false;  // for a moment, the library may still hold the connection that it gave up
  for (int i = 0; i < 100 && !asksTheBusAgain; ++i) asksTheBusAgain = lookUpTakes() >= DEADLINE;
  EXPECT_TRUE(asksTheBusAgain);
}

}  // namespace
}  // namespace vondle
