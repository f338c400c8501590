#include "config/config_loader.h"

#include <cerrno>

#include <gmock/gmock.h>

#include "testing/captured_log.h"
#include "testing/simulated_files.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_user_database.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr auto* PATH = "/home/tester/.vondle/config.json";
constexpr auto* MARKER = "/home/tester/.vondle/keychain_ok";

CapturedLog::Line line(LogLevel level, std::string message) {
  return {level, "com.ferrow.vondle.fileprovider", "provider", std::move(message)};
}
const auto UNREADABLE = line(LogLevel::error, "config unreadable at /home/tester/.vondle/config.json");
const auto NO_KEY = line(LogLevel::error, "no api key in keychain or config");
const auto KEY_READ = line(LogLevel::info, "api key read from the keychain");

struct ConfigLoaderTest : testing::Test {
  VirtualScheduler scheduler;
  SimulatedFiles files{scheduler};
  SimulatedKeychain keychain;
  SimulatedUserDatabase users;
  CapturedLog log;
  ConfigLoader loader{files, keychain, Paths(users), {"https://now.example", {"old.example"}}};
};

TEST_F(ConfigLoaderTest, ReadsServerAndKeyFromTheFile) {
  files.put(PATH, R"({"server":"https://a.example","api_key":"k"})");
  EXPECT_EQ(loader.load(), (Config{"https://a.example", "k"}));
  EXPECT_THAT(log.lines(), IsEmpty());
  EXPECT_FALSE(files.exists(MARKER));
}

TEST_F(ConfigLoaderTest, ReadsAfreshOnEveryCall) {
  files.put(PATH, R"({"server":"https://a.example","api_key":"k"})");
  EXPECT_EQ(loader.load(), (Config{"https://a.example", "k"}));
  files.put(PATH, R"({"server":"https://b.example","api_key":"l"})");
  EXPECT_EQ(loader.load(), (Config{"https://b.example", "l"}));
}

TEST_F(ConfigLoaderTest, HasNoneWithoutAUsableServer) {
  EXPECT_EQ(loader.load(), std::nullopt);
  EXPECT_THAT(log.lines(), ElementsAre(UNREADABLE));
  for (const auto* text :
       {"", "{", "[]", R"("https://a.example")", R"({"api_key":"k"})", R"({"server":"","api_key":"k"})",
        R"({"server":7,"api_key":"k"})", R"({"server":null,"api_key":"k"})"}) {
    log.clear();
    files.put(PATH, text);
    EXPECT_EQ(loader.load(), std::nullopt) << text;
    EXPECT_THAT(log.lines(), ElementsAre(UNREADABLE)) << text;
  }
}

TEST_F(ConfigLoaderTest, HasNoneWithoutAKey) {
  for (const auto* text : {R"({"server":"https://a.example"})", R"({"server":"https://a.example","api_key":""})",
                           R"({"server":"https://a.example","api_key":7})"}) {
    log.clear();
    files.put(PATH, text);
    EXPECT_EQ(loader.load(), std::nullopt) << text;
    EXPECT_THAT(log.lines(), ElementsAre(NO_KEY)) << text;
  }
}

TEST_F(ConfigLoaderTest, PrefersTheKeychainsKey) {
  files.put(PATH, R"({"server":"https://a.example","api_key":"of the file"})");
  KeychainStore(keychain).saveKey("of the keychain", "ann");
  EXPECT_EQ(loader.load(), (Config{"https://a.example", "of the keychain"}));
}

TEST_F(ConfigLoaderTest, TakesTheFilesKeyWhileTheKeychainIsNotAvailable) {
  files.put(PATH, R"({"server":"https://a.example","api_key":"of the file"})");
  KeychainStore(keychain).saveKey("of the keychain", "ann");
  keychain.setAvailable(false);
  EXPECT_EQ(loader.load(), (Config{"https://a.example", "of the file"}));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ConfigLoaderTest, LeavesAMarkerAtTheFirstKeyFromTheKeychain) {
  files.put(PATH, R"({"server":"https://a.example"})");
  KeychainStore(keychain).saveKey("k", "ann");
  EXPECT_TRUE(loader.load());
  EXPECT_EQ(files.contents(MARKER), "ok\n");
  EXPECT_TRUE(loader.load());
  EXPECT_EQ(files.writeCount(MARKER), 1);
  EXPECT_THAT(log.lines(), ElementsAre(KEY_READ));
}

TEST_F(ConfigLoaderTest, LeavesAMarkerThatExistsAsItIs) {
  files.put(PATH, R"({"server":"https://a.example"})");
  files.put(MARKER, "");
  KeychainStore(keychain).saveKey("k", "ann");
  EXPECT_TRUE(loader.load());
  EXPECT_EQ(files.contents(MARKER), "");
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ConfigLoaderTest, TriesTheMarkerAgainWhenItCouldNotBeWritten) {
  files.put(PATH, R"({"server":"https://a.example"})");
  files.fail(FileOperation::write, MARKER, EACCES);
  KeychainStore(keychain).saveKey("k", "ann");
  EXPECT_TRUE(loader.load());
  EXPECT_TRUE(loader.load());
  EXPECT_EQ(files.contents(MARKER), "ok\n");
  EXPECT_THAT(log.lines(), ElementsAre(KEY_READ, KEY_READ));
}

TEST_F(ConfigLoaderTest, StripsEverySlashAtTheEndOfTheServer) {
  for (const auto* server : {"https://a.example/", "https://a.example//"}) {
    files.put(PATH, std::string(R"({"api_key":"k","server":")") + server + "\"}");
    EXPECT_EQ(loader.load(), (Config{"https://a.example", "k"})) << server;
  }
}

TEST_F(ConfigLoaderTest, RefusesPlainHTTPToAnotherMachineUnlessItIsAllowed) {
  struct Case {
    const char* server;
    const char* allowHTTP;
    bool isUsed;
  };
  for (const auto& [server, allowHTTP, isUsed] : {
           Case{"http://a.example", "", false},
           Case{"HTTP://a.example:8080", "", false},
           Case{"http://a.example", R"(,"allow_http":false)", false},
           Case{"http://a.example", R"(,"allow_http":1)", false},
           Case{"http://a.example", R"(,"allow_http":"true")", false},
           Case{"http://a.example", R"(,"allow_http":true)", true},
           Case{"http://127.0.0.1:8080", "", true},
           Case{"http://localhost:8080", "", true},
           Case{"http://[::1]:8080", "", true},
           Case{"https://a.example", "", true},
       }) {
    log.clear();
    files.put(PATH, std::string(R"({"api_key":"k","server":")") + server + "\"" + allowHTTP + "}");
    EXPECT_EQ(loader.load(), isUsed ? std::optional(Config{server, "k"}) : std::nullopt) << server << allowHTTP;
    if (isUsed)
      EXPECT_THAT(log.lines(), IsEmpty()) << server;
    else
      EXPECT_THAT(log.lines(),
                  ElementsAre(line(LogLevel::error, std::string(server) +
                                                        " would get the key unprotected: use https, or put "
                                                        "\"allow_http\": true into " +
                                                        PATH)));
  }
}

TEST_F(ConfigLoaderTest, FollowsAServerThatHasMovedAndSavesThat) {
  files.put(PATH, R"({"server":"https://OLD.example:8443/api","api_key":"k"})", 0644);
  EXPECT_EQ(loader.load(), (Config{"https://now.example", "k"}));
  EXPECT_EQ(loader.load(), (Config{"https://now.example", "k"}));
  EXPECT_THAT(log.lines(), ElementsAre(line(LogLevel::info,
                                            "moved saved server https://OLD.example:8443/api -> https://now.example")));
  EXPECT_EQ(files.contents(PATH), "{\n  \"api_key\": \"k\",\n  \"server\": \"https://now.example\"\n}\n");
  EXPECT_EQ(files.attributes(PATH)->permissions, 0600U);
}

TEST_F(ConfigLoaderTest, FollowsAServerThatHasMovedThoughItCannotBeSaved) {
  files.put(PATH, R"({"server":"old.example","api_key":"k"})");
  files.fail(FileOperation::write, PATH, EROFS, SimulatedFiles::ALWAYS);
  EXPECT_EQ(loader.load(), (Config{"https://now.example", "k"}));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ConfigLoaderTest, HasNoneInAFileThatIsCutAnywhere) {
  const std::string whole = R"({"server":"https://a.example","api_key":"k\u00e9","max_download_kbps":7})";
  for (std::size_t length = 0; length < whole.size(); ++length) {
    files.put(PATH, whole.substr(0, length));
    EXPECT_EQ(loader.load(), std::nullopt) << length;
    EXPECT_EQ(files.contents(PATH), whole.substr(0, length));
  }
  files.put(PATH, whole);
  EXPECT_TRUE(loader.load());
}

}  // namespace
}  // namespace vondle
