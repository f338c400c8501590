// The extension's changes to the account, over real parts: sockets, files, threads and timers, against a real
// vondle-storage, from one client and from two at a time.

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/provider_error.h"
#include "base/json.h"
#include "fileprovider/error_codes.h"
#include "platform/bundle.h"
#include "platform/content_types.h"
#include "platform/linux/asio_scheduler.h"
#include "platform/linux/curl_url_session.h"
#include "platform/linux/helper_preview_renderer.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "platform/linux/linux_random.h"
#include "provider/process.h"
#include "storage_program.h"
#include "testing/captured_log.h"
#include "testing/scripted_manager.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_notify_centre.h"
#include "testing/simulated_process_control.h"
#include "testing/simulated_user_database.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

constexpr const char* KEY = "key-of-ann-0123456789";
constexpr std::size_t LARGE = 104'857'600;

// A PNG of one red dot.
const std::string PICTURE(
    "\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\1\0\0\0\1\x08\2\0\0\0\x90wS\xde\0\0\0\x0cIDATx\x9c"
    "c\xf8\xcf\xc0\0\0\3\1\1\0\xc9\xfe\x92\xef\0\0\0\0IEND\xae"
    "B`\x82",
    69);

// A folder in memory, where the system has such a place; gone at the end.
class Folder {
 public:
  Folder() {
    const std::filesystem::path memory = "/dev/shm";
    std::string pattern = (std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path()) /
                          "vondle-edit-test-XXXXXX";
    path_ = ::mkdtemp(pattern.data());
  }
  ~Folder() { std::filesystem::remove_all(path_); }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  std::string write(const std::string& name, std::string_view bytes, bool isPrivate = true) const {
    const std::filesystem::path path = path_ + "/" + name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
    if (isPrivate) std::filesystem::permissions(path, std::filesystem::perms::owner_read);
    return path;
  }

 private:
  std::string path_;
};

// A listing that is waited for.
class Listing final : public EnumerationObserver {
 public:
  void didEnumerateItems(std::vector<Item> page) override { std::ranges::move(page, std::back_inserter(items_)); }
  void finishEnumeratingUpToPage(std::optional<Page>) override { whole_.set_value(std::move(items_)); }
  void finishEnumeratingWithError(Error error) override { whole_.set_value(failure(std::move(error))); }
  Result<std::vector<Item>> wait() { return whole_.get_future().get(); }

 private:
  std::vector<Item> items_;
  std::promise<Result<std::vector<Item>>> whole_;
};

// The extension on a machine of its own, all of it real but the keychain and the bus. Calls wait for their answers.
class Client {
 public:
  explicit Client(int port) {
    users_.home = home_.path();
    home_.write(".vondle/config.json",
                json::serialize(json::Object{{"server", "http://127.0.0.1:" + std::to_string(port)}, {"api_key", KEY}}),
                false);
    process_.emplace(Platform{clock_, scheduler_, loading_, linuxFiles_, keychain_, notifyCentre_, users_, control_,
                              random_, previews_, bundleInformation()});
    extension_ = process_->makeExtension({"domain", "Ann's files"}, [this](const Domain&) { return manager_; });
  }

  Result<SavedItem> create(const std::string& name, std::string_view bytes, ItemIdentifier parent = ROOT_CONTAINER) {
    Item item;
    item.parentItemIdentifier = std::move(parent);
    item.filename = name;
    return sending(name, bytes, [&](const std::string& contents, auto done) {
      extension_->createItem(item, FIELD_CONTENTS | FIELD_FILENAME, contents, 0, {}, std::move(done));
    });
  }
  Result<SavedItem> createFolder(const std::string& name, ItemIdentifier parent = ROOT_CONTAINER) {
    Item item;
    item.parentItemIdentifier = std::move(parent);
    item.filename = name;
    item.contentType = FOLDER_CONTENT_TYPE;
    return answerOf<Result<SavedItem>>(
        [&](auto done) { extension_->createItem(item, FIELD_FILENAME, std::nullopt, 0, {}, std::move(done)); });
  }
  // New contents, made on the version of the item given.
  Result<SavedItem> write(const Item& item, std::string_view bytes) {
    return sending(item.filename, bytes, [&](const std::string& contents, auto done) {
      extension_->modifyItem(item, item.itemVersion, FIELD_CONTENTS, contents, 0, {}, std::move(done));
    });
  }
  Result<SavedItem> rename(Item item, const std::string& name) {
    item.filename = name;
    return modify(item, FIELD_FILENAME);
  }
  Result<SavedItem> move(Item item, ItemIdentifier parent) {
    item.parentItemIdentifier = std::move(parent);
    return modify(item, FIELD_PARENT_ITEM_IDENTIFIER);
  }
  std::optional<Error> remove(const Item& item) {
    return answerOf<std::optional<Error>>(
        [&](auto done) { extension_->deleteItem(item.itemIdentifier, item.itemVersion, 0, {}, std::move(done)); });
  }

  std::vector<Item> list(const ItemIdentifier& container = ROOT_CONTAINER) {
    const auto listing = std::make_shared<Listing>();
    extension_->enumeratorForContainer(container, {})->enumerateItems(listing, "");
    return listing->wait().value();
  }
  Item at(const std::string& name, const ItemIdentifier& container = ROOT_CONTAINER) {
    for (auto& item : list(container))
      if (item.filename == name) return item;
    ADD_FAILURE() << "there is no " << name;
    return {};
  }
  std::vector<std::string> names(const ItemIdentifier& container = ROOT_CONTAINER) {
    std::vector<std::string> found;
    for (const auto& item : list(container)) found.push_back(item.filename);
    return found;
  }
  std::string contents(const Item& item) {
    const auto fetched = answerOf<Result<FetchedContents>>(
        [&](auto done) { extension_->fetchContents(item.itemIdentifier, std::nullopt, {}, std::move(done)); });
    if (!fetched) return "(" + fetched.error().localizedDescription() + ")";
    std::ifstream stream(fetched->path, std::ios::binary);
    std::string bytes(std::istreambuf_iterator<char>(stream), {});
    std::filesystem::remove(fetched->path);
    return bytes;
  }
  // By name; what has none is left out, what is an error shows.
  std::map<std::string, std::string> thumbnails(const std::vector<Item>& items) {
    std::vector<ItemIdentifier> identifiers;
    for (const auto& item : items) identifiers.push_back(item.itemIdentifier);
    std::mutex lock;
    std::map<std::string, std::string> found;
    const auto error = answerOf<std::optional<Error>>([&](auto done) {
      extension_->fetchThumbnails(
          identifiers, {.width = 256, .height = 256},
          [&](const ItemIdentifier& identifier, Result<std::optional<std::string>> image) {
            const std::scoped_lock hold(lock);
            const auto name = std::ranges::find(items, identifier, &Item::itemIdentifier)->filename;
            if (!image)
              found[name] = "(" + image.error().localizedDescription() + ")";
            else if (*image)
              found[name] = **image;
          },
          std::move(done));
    });
    EXPECT_FALSE(error);
    return found;
  }
  // The files of a folder with what is in them.
  std::map<std::string, std::string> files(const ItemIdentifier& container = ROOT_CONTAINER) {
    std::map<std::string, std::string> found;
    for (const auto& item : list(container))
      if (!item.isFolder()) found[item.filename] = contents(item);
    return found;
  }

 private:
  template <class Answer, class Call>
  Answer answerOf(Call call) {
    std::promise<Answer> promise;
    call(Completion<Answer>([&](Answer answer) { promise.set_value(std::move(answer)); }));
    return promise.get_future().get();
  }
  // With a local file of these bytes.
  template <class Call>
  Result<SavedItem> sending(const std::string& name, std::string_view bytes, Call call) {
    const auto file = home_.write("edits/" + std::to_string(++files_) + "/" + name, bytes, false);
    auto saved = answerOf<Result<SavedItem>>([&](auto done) { call(file, std::move(done)); });
    std::filesystem::remove(file);
    return saved;
  }
  Result<SavedItem> modify(const Item& item, std::uint32_t fields) {
    return answerOf<Result<SavedItem>>([&](auto done) {
      extension_->modifyItem(item, item.itemVersion, fields, std::nullopt, 0, {}, std::move(done));
    });
  }

  Folder home_;
  std::atomic<int> files_ = 0;
  SimulatedUserDatabase users_;
  LinuxFiles linuxFiles_{users_};
  LinuxClock clock_;
  LinuxRandom random_;
  AsioScheduler scheduler_;
  CurlURLLoading loading_;
  SimulatedKeychain keychain_;
  SimulatedNotifyCentre notifyCentre_;
  SimulatedProcessControl control_;
  HelperPreviewRenderer previews_;
  std::optional<Process> process_;
  std::shared_ptr<ScriptedManager> manager_ = std::make_shared<ScriptedManager>(scheduler_.global());
  std::shared_ptr<VondleFileProvider> extension_;  // goes before the process
};

class EditTest : public testing::Test {
 protected:
  std::vector<std::string> arguments() {
    return {"--root", folder_.path() + "/state", "--listen", "127.0.0.1:0", "--account", "ann:" + keyFile_};
  }

  CapturedLog log_;
  Folder folder_;
  const std::string keyFile_ = folder_.write("key", KEY);
  storage::StorageProgram storage_{arguments()};
  const int port_ = storage_.port();
  Client client_{port_};
};

TEST_F(EditTest, AFileIsCreatedOverwrittenRenamedAndMoved) {
  const auto created = client_.create("draft.txt", "one");
  ASSERT_TRUE(created) << created.error().localizedDescription();
  EXPECT_TRUE(created->hasGivenContents);
  EXPECT_EQ(created->item.itemVersion.contentVersion, "1-3");
  EXPECT_EQ(created->item.parentItemIdentifier, ROOT_CONTAINER);

  const auto written = client_.write(created->item, "the second");
  ASSERT_TRUE(written) << written.error().localizedDescription();
  EXPECT_TRUE(written->hasGivenContents);
  EXPECT_EQ(written->item.itemIdentifier, created->item.itemIdentifier);
  EXPECT_EQ(written->item.itemVersion.contentVersion, "2-10");

  const auto renamed = client_.rename(written->item, "final.txt");
  ASSERT_TRUE(renamed) << renamed.error().localizedDescription();
  EXPECT_EQ(renamed->item.itemIdentifier, created->item.itemIdentifier);
  EXPECT_EQ(renamed->item.filename, "final.txt");
  EXPECT_EQ(renamed->item.itemVersion.contentVersion, "2-10");

  const auto folder = client_.createFolder("letters");
  ASSERT_TRUE(folder) << folder.error().localizedDescription();
  EXPECT_TRUE(folder->item.isFolder());
  const auto inner = client_.createFolder("old", folder->item.itemIdentifier);
  ASSERT_TRUE(inner) << inner.error().localizedDescription();
  EXPECT_EQ(inner->item.parentItemIdentifier, folder->item.itemIdentifier);
  const auto moved = client_.move(renamed->item, inner->item.itemIdentifier);
  ASSERT_TRUE(moved) << moved.error().localizedDescription();
  EXPECT_EQ(moved->item.parentItemIdentifier, inner->item.itemIdentifier);
  ASSERT_TRUE(client_.rename(folder->item, "papers"));

  Client other(port_);
  EXPECT_THAT(other.names(), ElementsAre("papers"));
  EXPECT_THAT(other.files(other.at("old", other.at("papers").itemIdentifier).itemIdentifier),
              ElementsAre(Pair("final.txt", "the second")));
}

TEST_F(EditTest, ThumbnailsAreTheClientsOwnOrMadeByTheServerOnTheFirstRequest) {
  const std::string JPEG = "\xff\xd8\xff";
  ASSERT_TRUE(client_.create("ours.png", PICTURE));
  ASSERT_TRUE(client_.create("notes.txt", "no picture"));
  ASSERT_EQ(storage_.end(SIGTERM), 0);
  folder_.write("pictures/theirs.png", PICTURE);
  auto importing = arguments();
  importing.insert(importing.end(), {"--import", folder_.path() + "/pictures"});
  storage::StorageProgram storage(importing);
  Client client(storage.port());

  const auto items = client.list();
  ASSERT_EQ(items.size(), 3u);
  const auto found = client.thumbnails(items);
  EXPECT_THAT(found,
              ElementsAre(Pair("ours.png", testing::StartsWith(JPEG)), Pair("theirs.png", testing::StartsWith(JPEG))));
  EXPECT_EQ(client.thumbnails(items), found);
}

TEST_F(EditTest, ContentsOfEverySizeArriveWhole) {
  const std::string some(524'288, 'y');
  const auto created = client_.create("film.bin", some);
  ASSERT_TRUE(created) << created.error().localizedDescription();
  EXPECT_TRUE(client_.contents(created->item) == some);

  std::string large(LARGE, 'x');
  for (std::size_t i = 0; i < large.size(); i += 4093) large[i] = static_cast<char>('a' + i % 26);
  const auto edited = client_.write(created->item, large);
  ASSERT_TRUE(edited) << edited.error().localizedDescription();
  EXPECT_TRUE(edited->hasGivenContents);
  EXPECT_THAT(log_.messages(), Contains(HasSubstr("4 parts of 32 MB")));
  EXPECT_TRUE(client_.contents(edited->item) == large);

  const auto emptied = client_.write(edited->item, "");
  ASSERT_TRUE(emptied) << emptied.error().localizedDescription();
  EXPECT_TRUE(emptied->hasGivenContents);
  EXPECT_EQ(client_.contents(emptied->item), "");
}

TEST_F(EditTest, ItemsGoIntoTheTrashAndComeBack) {
  const auto folder = client_.createFolder("letters").value().item;
  const auto file = client_.create("a.txt", "hello", folder.itemIdentifier).value().item;

  const auto trashed = client_.move(file, TRASH_CONTAINER);
  ASSERT_TRUE(trashed) << trashed.error().localizedDescription();
  EXPECT_EQ(trashed->item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_THAT(client_.names(folder.itemIdentifier), IsEmpty());
  EXPECT_THAT(client_.names(TRASH_CONTAINER), ElementsAre("a.txt"));
  ASSERT_TRUE(client_.move(trashed->item, TRASH_CONTAINER));  // again: the answer was lost, say

  const auto restored = client_.move(trashed->item, folder.itemIdentifier);
  ASSERT_TRUE(restored) << restored.error().localizedDescription();
  EXPECT_EQ(restored->item.itemIdentifier, file.itemIdentifier);
  EXPECT_EQ(restored->item.parentItemIdentifier, folder.itemIdentifier);
  EXPECT_EQ(client_.contents(restored->item), "hello");

  const auto trashedFolder = client_.move(folder, TRASH_CONTAINER);
  ASSERT_TRUE(trashedFolder) << trashedFolder.error().localizedDescription();
  EXPECT_THAT(client_.names(), IsEmpty());
  ASSERT_TRUE(client_.move(trashedFolder->item, ROOT_CONTAINER));
  EXPECT_THAT(client_.files(folder.itemIdentifier), ElementsAre(Pair("a.txt", "hello")));
}

TEST_F(EditTest, DeletedItemsGoIntoTheTrashAndThenForGood) {
  const auto folder = client_.createFolder("letters").value().item;
  const auto file = client_.create("a.txt", "hello").value().item;
  for (const auto& item : {folder, file}) {
    EXPECT_EQ(client_.remove(item), std::nullopt) << item.filename;
    EXPECT_THAT(client_.names(TRASH_CONTAINER), ElementsAre(item.filename));
    EXPECT_EQ(client_.remove(item), std::nullopt) << item.filename;
    EXPECT_THAT(client_.names(TRASH_CONTAINER), IsEmpty());
    EXPECT_EQ(client_.remove(item), std::nullopt) << "nobody knows it any more";
  }
  EXPECT_THAT(client_.names(), IsEmpty());
}

TEST_F(EditTest, ConflictingEditsOfTwoClientsEndWithBothVersionsOnBothSides) {
  const auto folder = client_.createFolder("docs").value().item.itemIdentifier;
  ASSERT_TRUE(client_.create("report.txt", "as it was", folder));
  Client other(port_);
  const auto mine = client_.at("report.txt", folder);
  const auto theirs = other.at("report.txt", folder);

  const auto first = other.write(theirs, "their edit");
  ASSERT_TRUE(first) << first.error().localizedDescription();
  EXPECT_TRUE(first->hasGivenContents);
  const auto second = client_.write(mine, "my edit");
  ASSERT_TRUE(second) << second.error().localizedDescription();
  EXPECT_FALSE(second->hasGivenContents);
  EXPECT_EQ(second->item.itemVersion, first->item.itemVersion);

  for (Client* client : {&client_, &other})
    EXPECT_THAT(client->files(folder), UnorderedElementsAre(Pair("report.txt", "their edit"),
                                                            Pair("report (conflicted copy).txt", "my edit")));
  EXPECT_THAT(log_.messages(),
              Contains("conflict on docs/report.txt — keeping the edit as docs/report (conflicted copy).txt"));

  // And once more, with the first copy still there.
  ASSERT_TRUE(client_.write(mine, "my other edit"));
  for (Client* client : {&client_, &other})
    EXPECT_THAT(client->files(folder),
                UnorderedElementsAre(Pair("report.txt", "their edit"), Pair("report (conflicted copy).txt", "my edit"),
                                     Pair("report (conflicted copy 2).txt", "my other edit")));
}

TEST_F(EditTest, AnEditOfWhatAnotherClientTrashedIsKeptBesideIt) {
  const auto file = client_.create("report.txt", "as it was").value().item;
  Client other(port_);
  EXPECT_EQ(other.remove(file), std::nullopt);
  const auto written = client_.write(file, "my edit");
  ASSERT_TRUE(written) << written.error().localizedDescription();
  EXPECT_FALSE(written->hasGivenContents);
  EXPECT_EQ(written->item.parentItemIdentifier, TRASH_CONTAINER);
  EXPECT_THAT(other.files(), ElementsAre(Pair("report (conflicted copy).txt", "my edit")));
}

TEST_F(EditTest, AnEditOfWhatIsGoneForGoodIsRefusedAndNothingIsLost) {
  const auto file = client_.create("report.txt", "as it was").value().item;
  Client other(port_);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(other.remove(file), std::nullopt);
  Client third(port_);  // which has never heard of it
  EXPECT_EQ(third.write(file, "my edit").error(), Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
  EXPECT_FALSE(client_.write(file, "my edit"));
  EXPECT_THAT(other.names(), IsEmpty());
}

TEST_F(EditTest, ManyEditsAtOnceAllArrive) {
  std::vector<std::future<Result<SavedItem>>> answers;
  for (int i = 0; i < 20; ++i)
    answers.push_back(std::async(std::launch::async, [this, i] {
      const auto name = std::to_string(i) + ".txt";
      auto created = client_.create(name, "first");
      return created ? client_.write(created->item, "second " + name) : created;
    }));
  for (auto& answer : answers) {
    const auto saved = answer.get();
    ASSERT_TRUE(saved) << saved.error().localizedDescription();
    EXPECT_TRUE(saved->hasGivenContents);
  }
  const auto files = client_.files();
  EXPECT_EQ(files.size(), 20u);
  for (const auto& [name, contents] : files) EXPECT_EQ(contents, "second " + name);
}

TEST_F(EditTest, AFullAccountRefusesAndTakesTheFileOnceThereIsRoom) {
  auto limited = arguments();
  limited.insert(limited.end(), {"--quota", "ann:1000"});
  limited[1] = folder_.path() + "/small";
  storage::StorageProgram small(limited);
  Client client(small.port());
  const auto file = client.create("a.txt", std::string(600, 'a')).value().item;
  const auto refused = client.create("b.txt", std::string(600, 'b'));
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error(),
            Error(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA,
                  "Vondle is full. “b.txt” will upload once there is room; open the Vondle menu to get more space."));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(client.remove(file), std::nullopt);
  EXPECT_TRUE(client.create("b.txt", std::string(600, 'b')));
}

TEST_F(EditTest, NamesOfAllKindsGoThere) {
  for (const std::string name : {"a b", "100%", "Übung „eins“.ödt", "q?a=b&c#d", "\"quoted\"", "-", ".hidden", "a\nb",
                                 "back\\slash", "emoji 🙂.txt"}) {
    const auto created = client_.create(name, name);
    ASSERT_TRUE(created) << name << ": " << created.error().localizedDescription();
    EXPECT_EQ(created->item.filename, name);
    const auto written = client_.write(created->item, name + "!");
    ASSERT_TRUE(written) << name << ": " << written.error().localizedDescription();
    EXPECT_EQ(client_.contents(written->item), name + "!");
    const auto renamed = client_.rename(written->item, name + " 2");
    ASSERT_TRUE(renamed) << name << ": " << renamed.error().localizedDescription();
  }
}

}  // namespace
}  // namespace vondle
