#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "base/byte_size.h"
#include "cli/command_line.h"
#include "cli/config_editor.h"
#include "cli/console.h"
#include "cli/item_locator.h"
#include "cli/server_check.h"
#include "cli/service_connection.h"
#include "cli/transfer_settings.h"
#include "cli/words.h"
#include "service/control/control_protocol.h"
#include "service/control/control_server.h"
#include "service/edits/edit_store.h"
#include "service/instance_lock.h"
#include "service/local_copies.h"
#include "service/replica/replica_store.h"
#include "service/thumbnails/thumbnail_cache.h"
#include "service/thumbnails/thumbnail_png.h"
#include "testing/simulated_platform.h"

namespace vondle {
namespace {

using testing::HasSubstr;
using testing::Not;

constexpr const char* CONFIG = "/home/tester/.vondle/config.json";

// The command over a simulated machine; the service's folders are real, below a throw-away home.
class CommandLineTest : public testing::Test {
 protected:
  CommandLineTest() {
    ::unsetenv("XDG_CACHE_HOME");
    char pattern[] = "/tmp/vondle-cli-XXXXXX";
    realHome_ = ::mkdtemp(pattern);
    machine_.users.home = SimulatedFiles::HOME;
    struct RealHome : UserDatabase {
      std::string home;
      std::optional<std::string> homeOfCurrentUser() const override { return home; }
      std::string fallbackHome() const override { return home; }
    } users;
    users.home = realHome_;
    folders_ = ServiceFolders::locate(users, std::nullopt);
    EXPECT_TRUE(folders_.create());
  }
  ~CommandLineTest() override { std::filesystem::remove_all(realHome_); }

  int run(std::vector<std::string> arguments) {
    out_.str("");
    err_.str("");
    Console console(out_, err_, {});
    return runOn(console, std::move(arguments));
  }
  int runOn(Console& console, std::vector<std::string> arguments) {
    CommandContext context{
        .console = console,
        .platform = machine_.platform(),
        .folders = folders_,
        .serviceProgram = "/nowhere/vondle-service",
        .readSecret = [this](const std::string& prompt) -> Outcome<std::string> {
          prompts_.push_back(prompt);
          return secret_;
        },
        .checkAccount = [this](const Config& account) -> Outcome<void> {
          checked_.push_back(account);
          if (refusal_) return std::unexpected(*refusal_);
          return {};
        },
        .accountHasOneOf = [this](const Config&, const std::vector<std::string>& identifiers) -> Outcome<bool> {
          asked_ = identifiers;
          if (refusal_) return std::unexpected(*refusal_);
          return std::ranges::any_of(identifiers, [this](const auto& each) { return account_.contains(each); });
        }};
    return runCommandLine(std::move(arguments), context, out_, err_);
  }

  json::Object config() { return json::parseObject(machine_.files.contents(CONFIG).value_or("{}")).value(); }

  SimulatedPlatform machine_;
  std::string realHome_;
  ServiceFolders folders_;
  std::ostringstream out_;
  std::ostringstream err_;
  std::string secret_ = "the-secret-key";
  std::vector<std::string> prompts_;
  std::vector<Config> checked_;
  std::set<std::string> account_;  // what the server knows
  std::vector<std::string> asked_;
  std::optional<Failure> refusal_;
};

TEST_F(CommandLineTest, ActionsGoIntoThunarsMenuBesideTheUsersOwnAndOutAgain) {
  ::unsetenv("XDG_CONFIG_HOME");
  const auto path = folders_.home + "/.config/Thunar/uca.xml";
  const std::string own =
      "<?xml "
      "version=\"1.0\"?>\n<actions>\n<action>\n\t<name>Mine</name>\n\t<unique-id>1-1</unique-id>\n</action>\n</"
      "actions>";
  machine_.files.put(path, own);
  EXPECT_EQ(run({"desktop", "install"}), 0);
  const auto installed = *machine_.files.contents(path);
  EXPECT_THAT(installed, HasSubstr("<name>Mine</name>"));
  EXPECT_THAT(installed, HasSubstr("<command>&apos;/libexec/vondle/desktop-action&apos; unkeep %F</command>"));
  EXPECT_TRUE(installed.ends_with("</action>\n</actions>"));
  EXPECT_EQ(run({"desktop", "install"}), 0);
  EXPECT_EQ(machine_.files.contents(path), installed) << "once more changes nothing";
  EXPECT_EQ(run({"desktop", "remove"}), 0);
  EXPECT_EQ(machine_.files.contents(path), own);
}

TEST_F(CommandLineTest, ActionsForThunarBeginWithTheSystemsOwnAndLeaveWhatIsNoListAlone) {
  ::unsetenv("XDG_CONFIG_HOME");
  const auto path = folders_.home + "/.config/Thunar/uca.xml";
  EXPECT_EQ(run({"desktop", "remove"}), 0);
  EXPECT_FALSE(machine_.files.contents(path));
  machine_.files.put("/etc/xdg/Thunar/uca.xml", "<actions><action><name>Terminal</name></action></actions>\n");
  EXPECT_EQ(run({"desktop", "install"}), 0);
  EXPECT_THAT(*machine_.files.contents(path), HasSubstr("<name>Terminal</name>"));
  for (const std::string broken : {"", "rubbish", "<unique-id>vondle-keep</unique-id></actions>"}) {
    machine_.files.put(path, broken);
    EXPECT_EQ(run({"desktop", "install"}), 1) << broken;
    EXPECT_THAT(err_.str(), HasSubstr("no list of actions"));
    EXPECT_EQ(machine_.files.contents(path), broken);
  }
}

TEST_F(CommandLineTest, WrongUsageExitsWithTwo) {
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"nonsense"},
      {"status", "--nonsense"},
      {"info"},
      {"fetch"},
      {"evict"},
      {"keep"},
      {"unkeep"},
      {"unkeep", "a", "--no-wait"},
      {"thumbnail", "a"},
      {"thumbnail", "-o", "b"},
      {"limits", "--down", "-1"},
      {"limits", "--down", "fast"},
      {"limits", "--transfers", "0"},
      {"sync", "--wait", "soon"},
      {"unmount", "--wait", "-1"},
      {"login", "--key-file"},
      {"mount", "a", "b"},
      {"trash"},
      {"trash", "nonsense"},
      {"trash", "restore"},
      {"trash", "delete"},
      {"trash", "empty", "1"},
      {"logout", "now"},
  };
  for (const auto& arguments : cases) {
    EXPECT_EQ(run(arguments), 2) << testing::PrintToString(arguments);
    EXPECT_NE(err_.str(), "") << testing::PrintToString(arguments);
    EXPECT_EQ(out_.str(), "") << testing::PrintToString(arguments);
  }
}

TEST_F(CommandLineTest, EveryCommandHasHelp) {
  for (const auto* command : {"login", "logout", "mount", "unmount", "status", "sync", "info", "fetch", "evict", "keep",
                              "unkeep", "thumbnail", "trash", "limits", "pause", "resume", "restart"}) {
    EXPECT_EQ(run({command, "--help"}), 0) << command;
    EXPECT_THAT(out_.str(), HasSubstr(command));
    EXPECT_EQ(err_.str(), "") << command;
  }
  EXPECT_EQ(run({"--help"}), 0);
  EXPECT_THAT(out_.str(), HasSubstr("Exit status"));
}

TEST_F(CommandLineTest, WhatNeedsTheServiceSaysThatItIsNotRunning) {
  const std::vector<std::vector<std::string>> cases = {{"status"},
                                                       {"sync"},
                                                       {"info", "a"},
                                                       {"fetch", "a"},
                                                       {"evict", "a"},
                                                       {"unmount"},
                                                       {"restart"},
                                                       {"trash", "list"},
                                                       {"trash", "restore", "1"},
                                                       {"trash", "empty"},
                                                       {"keep", "a"},
                                                       {"unkeep", "a"},
                                                       {"thumbnail", "a", "-o", "b"}};
  for (const auto& arguments : cases) {
    EXPECT_EQ(run(arguments), 4) << arguments[0];
    EXPECT_THAT(err_.str(), HasSubstr("vondle mount")) << arguments[0];
  }
}

TEST_F(CommandLineTest, MountNeedsAnAccount) {
  EXPECT_EQ(run({"mount"}), 3);
  EXPECT_THAT(err_.str(), HasSubstr("vondle login"));
  machine_.files.put(CONFIG, R"({"server":"https://a.example"})");
  EXPECT_EQ(run({"mount"}), 3);
  machine_.files.put(CONFIG, R"({"server":)");
  EXPECT_EQ(run({"mount"}), 3);
  EXPECT_THAT(err_.str(), HasSubstr("is not a JSON object"));
  machine_.files.put(CONFIG, R"({"server":"https://a.example","api_key":"k"})");
  EXPECT_EQ(run({"mount", realHome_ + "/m"}), 1) << "the program of the service is missing";
  EXPECT_THAT(err_.str(), HasSubstr("/nowhere/vondle-service cannot be started"));
}

TEST_F(CommandLineTest, LoginPutsTheKeyIntoTheKeyringAndTheServerIntoTheFile) {
  machine_.files.put(CONFIG, R"({"api_key":"old","max_upload_kbps":7})");
  EXPECT_EQ(run({"login", "--server", "a.example/"}), 0);
  EXPECT_EQ(config(), (json::Object{{"max_upload_kbps", 7}, {"server", "https://a.example"}}));
  ASSERT_EQ(machine_.keychain.items().size(), 1u);
  EXPECT_EQ(machine_.keychain.items()[0].data, "the-secret-key");
  EXPECT_EQ(prompts_.size(), 1u);
  EXPECT_EQ(checked_, (std::vector<Config>{{"https://a.example", "the-secret-key"}}));
  EXPECT_THAT(err_.str(), HasSubstr("keyring"));
}

TEST_F(CommandLineTest, LoginWithoutAKeyringPutsTheKeyIntoThePrivateFile) {
  machine_.keychain.setAvailable(false);
  machine_.files.put(CONFIG, "{}", 0644);
  EXPECT_EQ(run({"login", "--server", "https://a.example"}), 0);
  EXPECT_EQ(config(), (json::Object{{"api_key", "the-secret-key"}, {"server", "https://a.example"}}));
  EXPECT_EQ(machine_.files.attributes(CONFIG)->permissions, 0600u);
}

TEST_F(CommandLineTest, LoginNeverShowsTheKey) {
  for (const bool keyring : {true, false}) {
    machine_.keychain.setAvailable(keyring);
    EXPECT_EQ(run({"login", "--server", "https://a.example"}), 0);
    EXPECT_EQ(out_.str(), "");
    EXPECT_THAT(err_.str(), Not(HasSubstr("the-secret-key")));
  }
}

TEST_F(CommandLineTest, LoginReadsTheKeyFromAFile) {
  machine_.files.put("/home/tester/key", "  file-key\r\n");
  EXPECT_EQ(run({"login", "--server", "https://a.example", "--key-file", "/home/tester/key"}), 0);
  EXPECT_EQ(machine_.keychain.items()[0].data, "file-key");
  EXPECT_TRUE(prompts_.empty());
  EXPECT_EQ(run({"login", "--key-file", "/home/tester/none"}), 1);
}

TEST_F(CommandLineTest, LoginRefusesWhatIsNoKeyOrNoServer) {
  for (const auto& key : {std::string(), std::string(" \n "), std::string("two words"), std::string("a\nb"),
                          std::string("a\r\nX-Evil: 1"), std::string("schl\xc3\xbcssel"), std::string("a\0b", 3),
                          std::string(5000, 'k')}) {
    secret_ = key;
    EXPECT_EQ(run({"login", "--server", "https://a.example"}), 2) << key;
  }
  secret_ = "k";
  for (const auto* server : {"ftp://a.example", "https://", "https://a b", "file:///etc/passwd"}) {
    EXPECT_EQ(run({"login", "--server", server}), 2) << server;
  }
  EXPECT_FALSE(machine_.files.contents(CONFIG));
  EXPECT_TRUE(machine_.keychain.items().empty());
  EXPECT_TRUE(checked_.empty());
}

TEST_F(CommandLineTest, LoginTakesPlainHTTPToAnotherMachineOnlyWhenTheFileAllowsIt) {
  EXPECT_EQ(run({"login", "--server", "http://a.example"}), 2);
  EXPECT_THAT(err_.str(), HasSubstr("allow_http"));
  EXPECT_FALSE(machine_.files.contents(CONFIG));
  EXPECT_EQ(run({"login", "--server", "http://127.0.0.1:8080"}), 0);
  machine_.files.put(CONFIG, R"({"allow_http":true})");
  EXPECT_EQ(run({"login", "--server", "http://a.example"}), 0);
  EXPECT_EQ(config(), (json::Object{{"allow_http", true}, {"server", "http://a.example"}}));
}

TEST_F(CommandLineTest, ARefusedLoginChangesNothing) {
  const struct {
    ExitCode code;
    bool keyring;
    std::optional<std::string> file;
  } cases[] = {{ExitCode::notAuthenticated, true, std::nullopt},
               {ExitCode::notAuthenticated, false, std::nullopt},
               {ExitCode::serverUnreachable, true, R"({"server":"https://old.example","x":1})"},
               {ExitCode::failed, false, R"({ "server":"https://old.example", "api_key":"old" })"}};
  for (const auto& each : cases) {
    machine_.keychain.setAvailable(true);
    machine_.keychain.remove("com.ferrow.vondle.api-key", "group.com.ferrow.vondle");
    if (each.keyring) {
      machine_.keychain.add({.service = "com.ferrow.vondle.api-key",
                             .accessGroup = "group.com.ferrow.vondle",
                             .account = "Vondle",
                             .label = "",
                             .data = "old-key"});
    }
    machine_.keychain.setAvailable(each.keyring);
    if (each.file)
      machine_.files.put(CONFIG, *each.file);
    else
      (void)machine_.files.remove(CONFIG);
    refusal_ = Failure{each.code, "no"};
    EXPECT_EQ(run({"login", "--server", "https://new.example"}), static_cast<int>(each.code));
    EXPECT_THAT(err_.str(), HasSubstr("nothing was changed"));
    EXPECT_EQ(machine_.files.contents(CONFIG), each.file);
    machine_.keychain.setAvailable(true);
    const auto items = machine_.keychain.items();
    ASSERT_EQ(items.size(), each.keyring ? 1u : 0u);
    if (each.keyring) {
      EXPECT_EQ(items[0].data, "old-key");
    }
  }
}

TEST_F(CommandLineTest, LoginToAnotherAccountIsRefusedWhileThisOnesFilesAreHere) {
  machine_.files.put(CONFIG, R"({"server":"https://old.example","api_key":"old"})");
  {
    auto store = ReplicaStore::open(folders_.replicaDatabase());
    ASSERT_TRUE(store);
    ReplicaStore::Batch batch;
    const auto add = [&](Inode inode, Inode parent, const std::string& identifier) {
      Item item;
      item.itemIdentifier = {identifier};
      item.filename = std::to_string(inode);
      batch.upserts.push_back({.inode = inode,
                               .parent = parent,
                               .localName = item.filename,
                               .isListed = false,
                               .item = &batch.made.emplace_back(item)});
    };
    add(2, ROOT_INODE, "report");
    add(3, ROOT_INODE, std::string(LOCAL_IDENTIFIER_PREFIX) + "draft");
    add(4, 2, "deeper");
    store->write(batch);
    ASSERT_FALSE(store->isGivenUp());
  }
  account_ = {"deeper"};
  EXPECT_EQ(run({"login", "--server", "https://new.example"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr("another account"));
  EXPECT_THAT(err_.str(), HasSubstr("vondle logout"));
  EXPECT_EQ(asked_, std::vector<std::string>{"report"});
  EXPECT_EQ(config(), (json::Object{{"server", "https://old.example"}, {"api_key", "old"}}));
  EXPECT_TRUE(machine_.keychain.items().empty());

  account_ = {"report"};
  EXPECT_EQ(run({"login", "--server", "https://new.example"}), 0) << "the same account at a new address, by a new key";
  account_ = {};
  EXPECT_EQ(run({"logout"}), 0);
  EXPECT_EQ(run({"login", "--server", "https://new.example"}), 0);
}

TEST_F(CommandLineTest, ABrokenConfigurationIsNotOverwritten) {
  machine_.files.put(CONFIG, "{\"server\": oops");
  EXPECT_EQ(run({"login", "--server", "https://a.example"}), 1);
  EXPECT_EQ(run({"limits", "--down", "5"}), 1);
  EXPECT_EQ(run({"pause"}), 1);
  EXPECT_EQ(machine_.files.contents(CONFIG), "{\"server\": oops");
  EXPECT_THAT(err_.str(), HasSubstr(CONFIG));
}

TEST_F(CommandLineTest, LogoutForgetsTheKeyAndTheLocalCopies) {
  EXPECT_EQ(run({"login", "--server", "https://a.example"}), 0);
  machine_.files.put(CONFIG, R"({"server":"https://a.example","api_key":"k","x":1})");
  machine_.files.put(SimulatedFiles::containerPath("group.com.ferrow.vondle") + "/cursor.json", "{}");
  std::filesystem::create_directories(folders_.contentFiles());
  EXPECT_EQ(run({"logout"}), 0);
  EXPECT_TRUE(machine_.keychain.items().empty());
  EXPECT_EQ(config(), (json::Object{{"server", "https://a.example"}, {"x", 1}}));
  EXPECT_FALSE(machine_.files.contents(SimulatedFiles::containerPath("group.com.ferrow.vondle") + "/cursor.json"));
  EXPECT_FALSE(std::filesystem::exists(folders_.contentFiles()));
  EXPECT_EQ(run({"logout"}), 0) << "twice does no harm";
}

TEST_F(CommandLineTest, LogoutTakesThumbnailsOutOfTheDesktopsCache) {
  const auto folder = folders_.home + "/.cache/thumbnails";
  const auto pixel = png::onePixel();
  ASSERT_TRUE(ThumbnailCache(folder, "1").store({.uri = "file:///v/a.jpg"}, {pixel, pixel, pixel}));
  EXPECT_EQ(ThumbnailCache(folder, "1").entries().size(), 2u);
  EXPECT_EQ(run({"logout"}), 0);
  EXPECT_TRUE(ThumbnailCache(folder, "1").entries().empty());
}

TEST_F(CommandLineTest, LogoutIsRefusedWhileChangesAreNotOnTheServerYet) {
  machine_.files.put(CONFIG, R"({"api_key":"k"})");
  {
    auto store = EditStore::open(folders_.editDatabase());
    ASSERT_TRUE(store);
    Edit edit;
    edit.id = store->newID();
    edit.item.text = "7";
    edit.fields = EDIT_CONTENTS;
    edit.place = {ROOT_CONTAINER, "novel.odt"};
    edit.serverPlace = edit.place;
    edit.contents = 1;
    ASSERT_TRUE(store->write({.edits = {edit}, .removals = {}, .attributes = {}, .attributeRemovals = {}}));
  }
  std::filesystem::create_directories(folders_.editedFiles());
  std::ofstream(folders_.editedFiles() + "/1") << "chapter one";
  EXPECT_EQ(run({"logout"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr("novel.odt"));
  EXPECT_THAT(err_.str(), HasSubstr("1 change would be lost"));
  EXPECT_EQ(config(), (json::Object{{"api_key", "k"}})) << "still signed in";
  EXPECT_TRUE(std::filesystem::exists(folders_.editedFiles() + "/1"));

  EXPECT_EQ(run({"logout", "--force"}), 0);
  EXPECT_FALSE(std::filesystem::exists(folders_.editedFiles()));
  EXPECT_FALSE(std::filesystem::exists(folders_.editDatabase()));
  EXPECT_EQ(config(), json::Object());
}

TEST_F(CommandLineTest, LogoutIsRefusedWhenNobodyCanTellWhatWouldBeLost) {
  machine_.files.put(CONFIG, R"({"api_key":"k"})");
  std::ofstream(folders_.editDatabase()) << "this is no database at all, and long enough to be looked at as one";
  EXPECT_EQ(run({"logout"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr(folders_.editDatabase()));
  EXPECT_EQ(config(), (json::Object{{"api_key", "k"}}));
  EXPECT_TRUE(std::filesystem::exists(folders_.editDatabase()));
  EXPECT_EQ(run({"logout", "--force"}), 0);
}

TEST_F(CommandLineTest, LogoutIsRefusedWhileContentsThatNobodyRemembersAreHere) {
  machine_.files.put(CONFIG, R"({"api_key":"k"})");
  for (const auto* place : {"/7", "/lost+found/7"}) {
    const auto path = folders_.editedFiles() + place;
    std::filesystem::create_directories(path.substr(0, path.rfind('/')));
    std::ofstream(path) << "chapter one";
    EXPECT_EQ(run({"logout"}), 8) << place;
    EXPECT_THAT(err_.str(), HasSubstr("1 file would be lost"));
    EXPECT_THAT(err_.str(), HasSubstr(folders_.editedFiles()));
    EXPECT_TRUE(std::filesystem::exists(path)) << place;
    EXPECT_EQ(config(), (json::Object{{"api_key", "k"}})) << "still signed in";
    std::filesystem::remove(path);
  }
  EXPECT_EQ(run({"logout"}), 0);
}

TEST_F(CommandLineTest, LocalCopiesAreNotRemovedWithUnsentChangesBehindTheBackOfAnybody) {
  std::ofstream(folders_.editDatabase()) << "this is no database at all, and long enough to be looked at as one";
  std::filesystem::create_directories(folders_.contentFiles());
  EXPECT_FALSE(removeLocalCopies(folders_, machine_.files, UnsentEdits::keep));
  EXPECT_TRUE(std::filesystem::exists(folders_.contentFiles()));
}

TEST_F(CommandLineTest, LogoutWaitsForTheServiceToBeGone) {
  machine_.files.put(CONFIG, R"({"api_key":"k"})");
  const auto lock = InstanceLock::acquire(folders_.stateLock(), "it");
  ASSERT_TRUE(lock);
  EXPECT_EQ(run({"logout"}), 1);
  EXPECT_THAT(err_.str(), HasSubstr("vondle unmount"));
  EXPECT_EQ(config(), (json::Object{{"api_key", "k"}}));
}

TEST_F(CommandLineTest, LimitsAreWrittenAndShown) {
  machine_.files.put(CONFIG, R"({"server":"s"})");
  EXPECT_EQ(run({"limits"}), 0);
  EXPECT_EQ(out_.str(), "down unlimited\nup unlimited\n5 transfers at once\n");
  EXPECT_EQ(run({"limits", "--down", "512", "--up", "0.5", "--transfers", "1"}), 0);
  EXPECT_EQ(out_.str(), "down 512 kB/s\nup 0.5 kB/s\n1 transfer at once\n");
  EXPECT_THAT(*machine_.files.contents(CONFIG), HasSubstr("\"max_download_kbps\": 512,"));
  EXPECT_EQ(machine_.files.attributes(CONFIG)->permissions, 0600u);
  EXPECT_EQ(run({"limits", "--down", "0", "--json"}), 0);
  const auto report = json::parseObject(out_.str());
  ASSERT_TRUE(report);
  EXPECT_EQ(json::number(*report, "max_download_kbps"), 0);
  EXPECT_EQ(json::number(*report, "max_upload_kbps"), 0.5);
  EXPECT_EQ(json::integer(*report, "max_concurrent_transfers"), 1);
  EXPECT_EQ(json::boolean(*report, "transfers_paused"), false);
  EXPECT_EQ(json::text(config(), "server"), "s");
}

TEST_F(CommandLineTest, PauseAndResumeAreWritten) {
  EXPECT_EQ(run({"pause"}), 0);
  EXPECT_EQ(json::boolean(config(), "transfers_paused"), true);
  EXPECT_EQ(run({"limits"}), 0);
  EXPECT_THAT(out_.str(), HasSubstr("paused"));
  EXPECT_EQ(run({"resume"}), 0);
  EXPECT_EQ(json::boolean(config(), "transfers_paused"), false);
}

TEST_F(CommandLineTest, AnUnchangedConfigurationIsNotWritten) {
  machine_.files.put(CONFIG, R"({ "transfers_paused":true })");
  EXPECT_EQ(run({"pause"}), 0);
  EXPECT_EQ(machine_.files.writeCount(CONFIG), 0);
}

TEST_F(CommandLineTest, StatusWithoutAServiceStillReportsTheRest) {
  machine_.files.put(CONFIG, R"({"server":"https://a.example","api_key":"very-secret","max_upload_kbps":5})");
  EXPECT_EQ(run({"status"}), 4);
  EXPECT_THAT(out_.str(), HasSubstr("https://a.example"));
  EXPECT_THAT(out_.str(), HasSubstr("up 5 kB/s"));
  EXPECT_EQ(run({"status", "--json"}), 4);
  const auto report = json::parseObject(out_.str());
  ASSERT_TRUE(report);
  EXPECT_EQ(json::boolean(*report, "running"), false);
  EXPECT_EQ(json::text(*json::object(*report, "account"), "key"), "file");
  EXPECT_THAT(out_.str() + err_.str(), Not(HasSubstr("very-secret")));
}

// With a service that answers what the test says.
class ServiceCommandTest : public CommandLineTest {
 protected:
  void serve(std::function<void(const json::Object&, ControlReply&)> answer) {
    auto server = ControlServer::listen(
        folders_.socket(),
        [answer = std::move(answer)](const json::Object& request, const std::shared_ptr<ControlReply>& reply) {
          answer(request, *reply);
        });
    ASSERT_TRUE(server) << server.error().localizedDescription();
    server_ = std::move(*server);
  }

  std::unique_ptr<ControlServer> server_;
};

TEST_F(ServiceCommandTest, StatusShowsWhatTheServiceSays) {
  machine_.files.put(CONFIG, R"({"server":"https://a.example","api_key":"k"})");
  const auto now = machine_.scheduler.now().secondsSince1970;
  machine_.files.put(SimulatedFiles::containerPath("group.com.ferrow.vondle") + "/stats.json",
                     json::serialize(json::Object{{"down_bps", 2048}, {"up_bps", 0}, {"at", now - 1}}));
  serve([now](const json::Object&, ControlReply& reply) {
    reply.finish(
        {{"mount", "/home/ann/Vondle"},
         {"pid", 77},
         {"uptime", 7200},
         {"read_only", true},
         {"items", 12},
         {"files_here", 1},
         {"bytes_here", 1536},
         {"cache", json::Object{{"bytes", 1024},
                                {"kept_bytes", 512},
                                {"limit", 1 << 20},
                                {"disk_reserve", 2 << 20},
                                {"disk_free", 12 << 20}}},
         {"kept", json::Object{{"items", 2}, {"waiting", 3}, {"failing", 1}}},
         {"follow",
          json::Object{{"anchor", "4711"}, {"last_success", now - 12}, {"next_in", 18}, {"error", "no server"}}},
         {"edits", json::Object{{"total", 5},
                                {"sending", 1},
                                {"failing", 1},
                                {"local", 1},
                                {"list", json::Array{json::Object{{"path", "/film"},
                                                                  {"what", "new file"},
                                                                  {"state", "sending"},
                                                                  {"fraction", 0.456}},
                                                     json::Object{{"path", "/novel"},
                                                                  {"what", "new contents, renamed"},
                                                                  {"state", "retrying"},
                                                                  {"next_try", now + 20},
                                                                  {"error", "Vondle is full."}}}}}},
         {"transfers", json::Array{json::Object{
                           {"path", "/big.bin"}, {"direction", "down"}, {"completed", 512 << 10}, {"total", 1 << 20}}}},
         {"names",
          json::Array{json::Object{{"path", "/%=%2E%2E"}, {"server_name", ".."}, {"reason", "a name of dots"}}}},
         {"names_total", 1},
         {"errors", json::Array{json::Object{{"path", "/x"}, {"error", "gone"}, {"at", now - 60}}}}});
  });
  EXPECT_EQ(run({"status"}), 0);
  EXPECT_EQ(out_.str(),
            "Vondle      mounted at /home/ann/Vondle (read-only), process 77, for 2 h\n"
            "Account     https://a.example (key in the configuration file)\n"
            "Changes     up to 4711, 12 s ago; again in 18 s\n"
            "  no server\n"
            "Items       12 known, 1 file here (1.5 kB)\n"
            "Disk        1.0 kB of 1.0 MB used for files that were read, 512 B for kept ones; 12 MB free on the disk, "
            "2.0 MB to stay so\n"
            "Kept        2 items downloaded, 3 to come, 1 failed\n"
            "Edits       4 not on the server yet, 1 being sent, 1 failed; 1 file with a temporary name\n"
            "  /film: new file, being sent, 46 %\n"
            "  /novel: new contents, renamed, next try in 20 s\n"
            "    Vondle is full.\n"
            "Transfers   1\n"
            "  down  50 %  512 kB of 1.0 MB  /big.bin\n"
            "Rates       down 2.0 kB/s, up 0 B/s\n"
            "Limits      down unlimited, up unlimited, 5 transfers at once\n"
            "Problems    2\n"
            "  /%=%2E%2E stands for \"..\" (a name of dots)\n"
            "  /x: gone (60 s ago)\n");
}

TEST_F(ServiceCommandTest, StatusTellsWhereContentsAreThatNobodyRemembers) {
  serve([](const json::Object&, ControlReply& reply) {
    reply.finish({{"edits", json::Object{{"total", 0}, {"lost", 2}, {"lost_in", "/home/ann/lost+found"}}}});
  });
  EXPECT_EQ(run({"status"}), 0);
  EXPECT_THAT(out_.str(), HasSubstr("Edits       all on the server\n"
                                    "  contents of 2 changes that are not remembered are in /home/ann/lost+found; "
                                    "look through them and move them away\n"));
}

TEST_F(ServiceCommandTest, TheServicesCodesBecomeExitCodes) {
  const struct {
    std::string_view code;
    int exit;
  } cases[] = {{control::CODE_FAILED, 1},         {control::CODE_MALFORMED, 1},   {control::CODE_BUSY, 1},
               {control::CODE_NOT_CONFIGURED, 3}, {control::CODE_UNREACHABLE, 5}, {control::CODE_NOT_AUTHENTICATED, 6},
               {control::CODE_NO_SUCH_ITEM, 7},   {control::CODE_UNFINISHED, 8},  {"one of a later version", 1}};
  for (const auto& each : cases) {
    serve([&](const json::Object&, ControlReply& reply) { reply.fail(each.code, "why it failed"); });
    EXPECT_EQ(run({"sync"}), each.exit) << each.code;
    EXPECT_THAT(err_.str(), HasSubstr("why it failed"));
    server_.reset();
  }
}

TEST_F(ServiceCommandTest, AnAnswerThatMakesNoSenseIsAFailure) {
  serve([](const json::Object&, ControlReply& reply) { reply.finish({{"mount", 5}, {"transfers", "many"}}); });
  EXPECT_EQ(run({"status"}), 0);
  EXPECT_EQ(run({"info", "/etc"}), 7) << "the service names no folder";
}

TEST_F(ServiceCommandTest, SyncWaitsUntilNothingRuns) {
  std::atomic<int> statuses = 0;
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "sync") return reply.finish({{"updates", 1}});
    if (json::text(request, "command") == "drain") return reply.finish({{"left", 0}});
    json::Array transfers;
    if (++statuses < 3) transfers.push_back(json::Object{});
    reply.finish({{"transfers", transfers}});
  });
  EXPECT_EQ(run({"sync", "--wait", "--json"}), 0);
  EXPECT_EQ(statuses, 3);
  EXPECT_EQ(out_.str(), "{\"updates\":1}\n");
}

TEST_F(ServiceCommandTest, SyncGivesUpWhenTheTimeIsUp) {
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "sync") return reply.finish({});
    reply.finish({{"transfers", json::Array{json::Object{}}}});
  });
  EXPECT_EQ(run({"sync", "--wait", "0.1"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr("1 transfer still running"));
}

TEST_F(ServiceCommandTest, SigningInTellsARunningService) {
  std::vector<std::string> commands;
  serve([&](const json::Object& request, ControlReply& reply) {
    commands.emplace_back(json::text(request, "command").value_or(""));
    reply.finish({});
  });
  EXPECT_EQ(run({"login", "--server", "https://a.example"}), 0);
  EXPECT_THAT(commands, testing::ElementsAre("sync"));
}

TEST_F(ServiceCommandTest, SyncWaitsForEditsAndTellsWhatIsLeft) {
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") != "drain") return reply.finish({});
    reply.progress({{"left", 2}, {"edits", 3}});
    reply.finish({{"left", 1},
                  {"edits", json::Array{json::Object{
                                {"path", "/novel"}, {"what", "new contents"}, {"error", "Vondle is full."}}}}});
  });
  EXPECT_EQ(run({"sync", "--wait"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr("/novel (new contents): Vondle is full."));
  EXPECT_THAT(err_.str(), HasSubstr("1 change is not on the server yet"));
  EXPECT_EQ(run({"sync"}), 0) << "only those who wait hear of it";
}

TEST_F(ServiceCommandTest, WhenTheTimeIsUpSyncTellsHowManyChangesAreLeft) {
  std::shared_ptr<ControlReply> kept;
  auto server = ControlServer::listen(folders_.socket(),
                                      [&kept](const json::Object& request, const std::shared_ptr<ControlReply>& reply) {
                                        if (json::text(request, "command") == "status")
                                          return reply->finish({{"edits", json::Object{{"total", 5}, {"local", 2}}}});
                                        if (json::text(request, "command") == "sync") return reply->finish({});
                                        kept = reply;
                                      });
  ASSERT_TRUE(server);
  EXPECT_EQ(run({"sync", "--wait", "0.1"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr("3 changes are not on the server yet"));
  server->reset();
}

TEST_F(ServiceCommandTest, UnmountSendsFirstAndSaysWhatIsLeft) {
  std::vector<std::string> commands;
  int left = 0;
  serve([&](const json::Object& request, ControlReply& reply) {
    commands.emplace_back(json::text(request, "command").value_or(""));
    if (commands.back() == "drain") return reply.finish({{"left", left}});
    reply.finish({{"pid", 0}});
  });
  EXPECT_EQ(run({"unmount"}), 0);
  EXPECT_THAT(commands, testing::ElementsAre("drain", "stop"));
  left = 2;
  EXPECT_EQ(run({"unmount"}), 8);
  EXPECT_THAT(err_.str(), HasSubstr("unmounted"));
  EXPECT_THAT(err_.str(), HasSubstr("2 changes are kept here"));
}

TEST_F(ServiceCommandTest, TheTrashIsListedAndChanged) {
  std::vector<json::Object> requests;
  serve([&](const json::Object& request, ControlReply& reply) {
    requests.push_back(request);
    if (json::text(request, "command") == "trash") {
      return reply.finish({{"items", json::Array{json::Object{{"id", "17"}, {"name", "old"}, {"folder", true}},
                                                 json::Object{{"id", "18"},
                                                              {"name", "a.txt"},
                                                              {"folder", false},
                                                              {"size", 1536},
                                                              {"modified", "2024-05-01T10:20:30.000Z"}}}}});
    }
    reply.finish({{"done", 1},
                  {"failures", json::Array{json::Object{
                                   {"id", "9"}, {"error", "not there"}, {"code", control::CODE_NO_SUCH_ITEM}}}}});
  });
  EXPECT_EQ(run({"trash", "list"}), 0);
  EXPECT_EQ(out_.str(),
            "17                                                   old/\n"
            "18                 1.5 kB  2024-05-01T10:20:30.000Z  a.txt\n");
  EXPECT_EQ(run({"trash", "restore", "17", "9"}), 7);
  EXPECT_EQ(requests.back(), (json::Object{{"command", "trash-restore"}, {"ids", json::Array{"17", "9"}}}));
  EXPECT_THAT(err_.str(), HasSubstr("9: not there"));
  EXPECT_THAT(err_.str(), HasSubstr("1 item restored"));
  EXPECT_EQ(run({"trash", "delete", "17", "--json"}), 7);
  EXPECT_EQ(json::text(requests.back(), "command"), "trash-delete");
  EXPECT_THAT(out_.str(), HasSubstr("\"done\":1"));
  run({"trash", "empty"});
  EXPECT_EQ(requests.back(), (json::Object{{"command", "trash-empty"}}));
}

// Requests for many files, against a folder that stands in for the mount.
class BatchCommandTest : public ServiceCommandTest {
 protected:
  BatchCommandTest() {
    mount_ = realHome_ + "/mount";
    std::filesystem::create_directories(mount_ + "/docs/deep");
    for (const auto* name : {"/a", "/docs/b", "/docs/deep/c"}) std::ofstream(mount_ + name) << "x";
  }

  std::string mount_;
};

TEST_F(BatchCommandTest, FoldersStandForAllTheirFiles) {
  std::vector<std::int64_t> inodes;
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "status") return reply.finish({{"mount", mount_}});
    EXPECT_EQ(json::text(request, "command"), "fetch");
    for (const auto& inode : *json::list(request, "inodes")) inodes.push_back(inode.as_int64());
    reply.finish({{"done", 2}, {"failures", json::Array{}}});
  });
  EXPECT_EQ(run({"fetch", mount_ + "/docs"}), 0);
  EXPECT_THAT(inodes,
              testing::UnorderedElementsAre(static_cast<std::int64_t>(*locateItem(mount_ + "/docs/b", mount_)),
                                            static_cast<std::int64_t>(*locateItem(mount_ + "/docs/deep/c", mount_))));
  EXPECT_THAT(err_.str(), HasSubstr("2 files fetched"));
}

TEST_F(BatchCommandTest, FoldersAreKeptThemselves) {
  std::vector<json::Object> requests;
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "status") return reply.finish({{"mount", mount_}});
    requests.push_back(request);
    reply.finish({{"done", 2}, {"failures", json::Array{}}});
  });
  const json::Array inodes{*locateItem(mount_ + "/docs", mount_), *locateItem(mount_ + "/a", mount_)};
  EXPECT_EQ(run({"keep", mount_ + "/docs", mount_ + "/a"}), 0);
  EXPECT_THAT(err_.str(), HasSubstr("2 items kept downloaded"));
  EXPECT_EQ(run({"keep", mount_ + "/docs", mount_ + "/a", "--no-wait"}), 0);
  EXPECT_EQ(run({"unkeep", mount_ + "/docs", mount_ + "/a"}), 0);
  EXPECT_THAT(err_.str(), HasSubstr("2 items no longer kept downloaded"));
  EXPECT_THAT(requests, testing::ElementsAre(json::Object{{"wait", true}, {"command", "keep"}, {"inodes", inodes}},
                                             json::Object{{"wait", false}, {"command", "keep"}, {"inodes", inodes}},
                                             json::Object{{"command", "unkeep"}, {"inodes", inodes}}));
}

TEST_F(BatchCommandTest, AThumbnailIsSaved) {
  json::Object asked;
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "status") return reply.finish({{"mount", mount_}});
    asked = request;
    reply.finish({{"image", "Zm9vYmFy"}});
  });
  const auto inode = *locateItem(mount_ + "/a", mount_);
  EXPECT_EQ(run({"thumbnail", mount_ + "/a", "-o", "/tmp/a.jpg"}), 0) << err_.str();
  EXPECT_EQ(machine_.files.contents("/tmp/a.jpg"), "foobar");
  EXPECT_EQ(asked, (json::Object{{"command", "thumbnail"}, {"inode", inode}, {"width", 256}, {"height", 256}}));
  EXPECT_EQ(run({"thumbnail", mount_ + "/a", "-o", "/tmp/b.jpg", "--size", "64x48"}), 0);
  EXPECT_EQ(asked, (json::Object{{"command", "thumbnail"}, {"inode", inode}, {"width", 64}, {"height", 48}}));
  for (const auto* size : {"64", "64x", "x48", "0x48", "64x-1", "64x48x2", "6 4x48"})
    EXPECT_EQ(run({"thumbnail", mount_ + "/a", "-o", "/tmp/b.jpg", "--size", size}), 2) << size;
  EXPECT_EQ(run({"thumbnail", mount_ + "/a", "-o", "/nowhere/b.jpg"}), 1);
}

TEST_F(BatchCommandTest, SingleFailuresDoNotStopTheRest) {
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "status") return reply.finish({{"mount", mount_}});
    reply.finish({{"done", 0},
                  {"failures", json::Array{json::Object{
                                   {"path", "/a"}, {"error", "no server"}, {"code", control::CODE_UNREACHABLE}}}}});
  });
  EXPECT_EQ(run({"fetch", mount_ + "/a", mount_ + "/missing", "/proc/self"}), 7) << "the first failure counts";
  EXPECT_THAT(err_.str(), HasSubstr("/missing: No such file or directory"));
  EXPECT_THAT(err_.str(), HasSubstr("/proc/self is not in the Vondle folder"));
  EXPECT_THAT(err_.str(), HasSubstr("/a: no server"));
  EXPECT_EQ(run({"evict", mount_ + "/a", "--json"}), 5);
  EXPECT_EQ(out_.str(), "{\"done\":0,\"failed\":1,\"failures\":[\"/a: no server\"]}\n");
}

TEST_F(BatchCommandTest, OfVeryManyFailuresSomeAreNamedAndAllAreCounted) {
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "status") return reply.finish({{"mount", mount_}});
    reply.finish({{"done", 1},
                  {"failed", 5000},
                  {"failures", json::Array{json::Object{
                                   {"path", "/docs/b"}, {"error", "no room"}, {"code", control::CODE_FAILED}}}}});
  });
  EXPECT_EQ(run({"keep", mount_ + "/docs", "--json"}), 1);
  EXPECT_THAT(err_.str(), HasSubstr("/docs/b: no room"));
  EXPECT_THAT(err_.str(), HasSubstr("and 4999 more"));
  EXPECT_EQ(out_.str(), "{\"done\":1,\"failed\":5000,\"failures\":[\"/docs/b: no room\"]}\n");
}

TEST_F(BatchCommandTest, ATerminalShowsHowMuchOfAllIsDone) {
  for (int i = 0; i < 1200; ++i) std::ofstream(mount_ + "/docs/deep/" + std::to_string(i)) << "0123456789";
  serve([&](const json::Object& request, ControlReply& reply) {
    if (json::text(request, "command") == "status") return reply.finish({{"mount", mount_}});
    const auto files = static_cast<std::int64_t>(json::list(request, "inodes")->size());
    reply.progress({{"done", files / 2}, {"files", files}, {"bytes_done", files * 5}, {"bytes", files * 10}});
    reply.finish({{"done", files}, {"failures", json::Array{}}});
  });
  std::ostringstream terminal;
  Console console(out_, terminal, {.outIsTerminal = false, .errIsTerminal = true, .colour = false});
  EXPECT_EQ(runOn(console, {"fetch", mount_ + "/docs"}), 0);
  EXPECT_THAT(terminal.str(), HasSubstr("[============                  ] 500 of 1202 files, 4.9 kB of 12 kB\r"));
  EXPECT_THAT(terminal.str(), HasSubstr("[===========================   ] 1101 of 1202 files, 11 kB of 12 kB\r"));
  EXPECT_THAT(terminal.str(), testing::EndsWith("\r\x1b[Kvondle: 1202 files fetched\n"));
}

TEST(ServerCheckTest, ErrorsOfTheServerBecomeExitCodes) {
  const struct {
    Error error;
    ExitCode code;
  } cases[] = {{Error(URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST), ExitCode::serverUnreachable},
               {Error(URL_ERROR_DOMAIN, URL_TIMED_OUT), ExitCode::serverUnreachable},
               {APIError::badResponse(401), ExitCode::notAuthenticated},
               {APIError::badResponse(403), ExitCode::notAuthenticated},
               {APIError::badResponse(200), ExitCode::failed},
               {APIError::badResponse(500), ExitCode::failed},
               {APIError::malformed(), ExitCode::failed},
               {APIError::notConfigured(), ExitCode::notConfigured}};
  for (const auto& each : cases) {
    EXPECT_EQ(failureOf(each.error).code, each.code) << each.error.localizedDescription();
    EXPECT_NE(failureOf(each.error).message, "");
  }
}

TEST(ConsoleTest, ForeignTextsAreMadeSafeOnATerminalOnly) {
  std::ostringstream out;
  std::ostringstream err;
  const std::string hostile = "a\x1b[2Jb\nc";
  Console terminal(out, err, {.outIsTerminal = true, .errIsTerminal = true, .colour = false});
  EXPECT_EQ(terminal.shown(hostile), "a\\x1b[2Jb\\nc");
  terminal.say(hostile);
  EXPECT_EQ(err.str(), "vondle: a\\x1b[2Jb\\nc\n");
  EXPECT_EQ(Console(out, err, {}).shown(hostile), hostile);
}

TEST(ConsoleTest, ColoursOnlyWhereTheyAreWanted) {
  std::ostringstream out;
  std::ostringstream err;
  EXPECT_EQ(Console(out, err, {}).warning("x"), "x");
  EXPECT_EQ(Console(out, err, {.outIsTerminal = true, .errIsTerminal = true, .colour = false}).warning("x"), "x");
  EXPECT_EQ(Console(out, err, {.outIsTerminal = true, .errIsTerminal = true, .colour = true}).warning("x"),
            "\x1b[31mx\x1b[0m");
}

TEST(ConsoleTest, ProgressStaysOffAnythingButATerminal) {
  std::ostringstream out;
  std::ostringstream err;
  Console pipe(out, err, {});
  pipe.showProgress("half");
  pipe.showProgress("");
  EXPECT_EQ(err.str(), "");
  Console terminal(out, err, {.outIsTerminal = false, .errIsTerminal = true, .colour = false});
  terminal.showProgress("half");
  terminal.say("done");
  EXPECT_EQ(err.str(), "\r\x1b[Khalf\r\x1b[Kvondle: done\n");
}

TEST(WordsTest, SizesAndTimesAreShort) {
  const struct {
    double bytes;
    const char* text;
  } sizes[] = {{0, "0 B"},
               {1023, "1023 B"},
               {1024, "1.0 kB"},
               {1536, "1.5 kB"},
               {10239, "10 kB"},
               {1048575, "1.0 MB"},
               {12.0 * (1 << 20), "12 MB"},
               {5e15, "4.4 PB"},
               {5e18, "4441 PB"}};
  for (const auto& each : sizes) EXPECT_EQ(sizeInWords(each.bytes), each.text);
  const struct {
    double seconds;
    const char* text;
  } times[] = {{-5, "0 s"},       {0.9, "0 s"},  {119, "119 s"},       {120, "2 min"},
               {7199, "119 min"}, {7200, "2 h"}, {48 * 3600, "2 days"}};
  for (const auto& each : times) EXPECT_EQ(durationInWords(seconds(each.seconds)), each.text);
}

TEST(TransferSettingsTest, WrongTypesAreDefaults) {
  const auto settings =
      TransferSettings::from({{"max_download_kbps", "7"}, {"max_concurrent_transfers", -3}, {"transfers_paused", 1}});
  EXPECT_EQ(settings.downloadKilobytes, 0);
  EXPECT_EQ(settings.transfers, 5);
  EXPECT_TRUE(settings.paused);
}

}  // namespace
}  // namespace vondle
