#include "service/contents/lost_and_found.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "service/contents/edited_contents.h"
#include "service/edits/edit_store.h"
#include "testing/captured_log.h"
#include "testing/fake_extension.h"
#include "testing/simulated_random.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

std::string bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void put(const std::string& path, std::string_view bytes) {
  std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

class LostAndFoundTest : public testing::Test {
 protected:
  ~LostAndFoundTest() override { std::filesystem::remove_all(folder_); }

  // In memory, where the system has such a place: databases are synchronised a thousand times.
  static std::string makeFolder() {
    const std::filesystem::path memory = "/dev/shm";
    const auto place = std::filesystem::is_directory(memory) ? memory : std::filesystem::temp_directory_path();
    std::string pattern = place / "vondle-lost-XXXXXX";
    return ::mkdtemp(pattern.data());
  }
  // One that is kept, or is not.
  void makeFile(std::int64_t number, std::string_view bytes, bool isKept = true) const {
    const auto path = folder_ + "/" + std::to_string(number);
    const auto file = EditedFile::make(path, number).value();
    file->keep();
    put(path, bytes);
    if (!isKept) file->markDoneWith();
  }

  const std::string folder_ = makeFolder();
};

TEST_F(LostAndFoundTest, NumbersAreDigitsAlone) {
  EXPECT_EQ(privateFileNumber("0"), 0);
  EXPECT_EQ(privateFileNumber("1763740800123"), 1'763'740'800'123);
  for (const char* name : {"", "-1", "+1", "1.part", "lost+found", "sending", " 1", "9223372036854775808"})
    EXPECT_EQ(privateFileNumber(name), std::nullopt) << name;
}

TEST_F(LostAndFoundTest, WhatHoldsSomethingThatIsNotDoneWithIsSetAside) {
  makeFile(1, "draft");
  makeFile(2, "done with", false);
  makeFile(3, "");
  EXPECT_EQ(countUnclaimed(folder_, {}), 1U);
  EXPECT_EQ(countUnclaimed(folder_, {1}), 0U);
  for (const std::int64_t number : {1, 2, 3, 4}) EXPECT_TRUE(setAside(folder_, number)) << number;
  EXPECT_THAT(lostFiles(folder_), ElementsAre(1));
  EXPECT_EQ(bytesOf(lostAndFound(folder_) + "/1"), "draft");
  EXPECT_EQ(countUnclaimed(folder_, {1}), 1U) << "no edit names what is there";
  for (const char* name : {"1", "2", "3"}) EXPECT_FALSE(std::filesystem::exists(folder_ + "/" + name)) << name;
}

TEST_F(LostAndFoundTest, AFileWithAnotherNameLosesThisOne) {
  makeFile(1, "draft");
  ASSERT_EQ(::link((folder_ + "/1").c_str(), (folder_ + "/2").c_str()), 0);
  EXPECT_EQ(countUnclaimed(folder_, {2}), 0U);
  EXPECT_TRUE(setAside(folder_, 1));
  EXPECT_THAT(lostFiles(folder_), IsEmpty());
  EXPECT_EQ(bytesOf(folder_ + "/2"), "draft");
  EXPECT_TRUE(setAside(folder_, 2));
  EXPECT_THAT(lostFiles(folder_), ElementsAre(2)) << "which was the last name";
}

TEST_F(LostAndFoundTest, NothingThatIsThereIsOverwritten) {
  makeFile(1, "first");
  EXPECT_TRUE(setAside(folder_, 1));
  makeFile(1, "second");
  EXPECT_FALSE(setAside(folder_, 1));
  EXPECT_EQ(bytesOf(lostAndFound(folder_) + "/1"), "first");
  EXPECT_EQ(bytesOf(folder_ + "/1"), "second");
  EXPECT_EQ(countUnclaimed(folder_, {}), 2U);
}

TEST_F(LostAndFoundTest, WhatAnEditNamesComesBack) {
  makeFile(1, "draft");
  EXPECT_TRUE(setAside(folder_, 1));
  EXPECT_TRUE(bringBack(folder_, 1));
  EXPECT_EQ(bytesOf(folder_ + "/1"), "draft");
  EXPECT_THAT(lostFiles(folder_), IsEmpty());
  EXPECT_FALSE(bringBack(folder_, 1));
}

TEST_F(LostAndFoundTest, AFolderThatIsNotThereHoldsNothing) {
  EXPECT_THAT(lostFiles(folder_ + "/none"), IsEmpty());
  EXPECT_EQ(countUnclaimed(folder_ + "/none", {}), 0U);
}

// A queue whose database is cut short, over the private files of what it held.
class CutQueueTest : public LostAndFoundTest {
 protected:
  // What a service is made of, as far as private files go.
  struct Parts {
    explicit Parts(const std::string& folder) {
      std::filesystem::create_directories(folder + "/fetched");
      extension = std::make_unique<FakeExtension>(folder + "/fetched");
      replica = Replica::open(folder + "/replica.db").value();
      tree = std::make_unique<Tree>(*replica, scheduler);
      edits = LocalEdits::open(folder + "/edits.db", *tree, scheduler, random).value();
      contents = ContentStore::open(folder + "/contents", *tree, *extension, errors, scheduler, scheduler).value();
      edited = EditedContents::open(folder + "/edits", contents, edits, *tree, scheduler, scheduler).value();
      tree->applyListing(ROOT_INODE, {}, [](const Result<void>&) {});
      scheduler.runUntilIdle();
    }
    ~Parts() {
      contents->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
      scheduler.runUntilIdle();
    }
    Parts(const Parts&) = delete;
    Parts& operator=(const Parts&) = delete;

    void create(const std::string& name, std::string_view bytes) {
      const auto file = edited->makeEmpty().value();
      put(file->path(), bytes);
      edits->createFile(ROOT_INODE, name, file->number(), 0600,
                        [&](const Result<ItemAttributes>& made) { edited->keep(made.value().inode, file); });
      scheduler.runUntilIdle();
    }

    VirtualScheduler scheduler;
    SimulatedRandom random;
    LastErrors errors;
    std::unique_ptr<FakeExtension> extension;
    std::unique_ptr<Replica> replica;
    std::unique_ptr<Tree> tree;
    std::shared_ptr<LocalEdits> edits;
    std::shared_ptr<ContentStore> contents;
    std::shared_ptr<EditedContents> edited;
  };

  CutQueueTest() {
    {
      Parts parts(folder_ + "/whole");
      for (std::size_t i = 1; i <= FILES; ++i)
        parts.create("file " + std::to_string(i), "written by program " + std::to_string(i));
      killedDatabase_ = bytesOf(folder_ + "/whole/edits.db");
      killedLog_ = bytesOf(folder_ + "/whole/edits.db-wal");
    }
    closedDatabase_ = bytesOf(folder_ + "/whole/edits.db");
    for (const auto& file : std::filesystem::directory_iterator(folder_ + "/whole/edits"))
      if (file.is_regular_file()) written_[file.path().filename()] = bytesOf(file.path());
  }

  // Every 64th, and all of the first and the last 512.
  static std::vector<std::size_t> cuts(std::size_t size) {
    std::vector<std::size_t> positions;
    for (std::size_t at = 0; at < size; ++at)
      if (at % 64 == 0 || at < 512 || at + 512 >= size) positions.push_back(at);
    return positions;
  }

  // The numbers of the private files that the queue still names; none when it says that it is damaged.
  std::optional<std::set<std::int64_t>> openCut(std::string_view database, std::string_view log) {
    const auto path = folder_ + "/cut.db";
    std::filesystem::remove(path + "-shm");
    put(path, database);
    put(path + "-wal", log);
    auto store = EditStore::open(path);
    auto edits = store ? store->edits() : failure(store.error());
    if (!edits) {
      EXPECT_THAT(edits.error().localizedDescription(), HasSubstr(path));
      EXPECT_THAT(edits.error().localizedDescription(), HasSubstr("Nothing was removed."));
      return std::nullopt;
    }
    std::set<std::int64_t> numbers;
    for (const auto& edit : *edits) numbers.insert(edit.contents);
    return numbers;
  }

  // A service that starts over it shows each of the files, or keeps it.
  void expectNothingLost(std::string_view database, std::string_view log, std::size_t named, const std::string& where) {
    const auto world = folder_ + "/world";
    std::filesystem::remove_all(world);
    std::filesystem::create_directory(world);
    std::filesystem::copy(folder_ + "/whole/edits", world + "/edits", std::filesystem::copy_options::recursive);
    put(world + "/edits.db", database);
    put(world + "/edits.db-wal", log);
    const CapturedLog quiet;
    Parts parts(world);
    std::map<std::string, std::string> shown, kept;
    for (const auto& edit : parts.edits->pending()) {
      const auto file = parts.edited->find(parts.edits->inodeOf(edit.id));
      ASSERT_TRUE(file) << where;
      shown[std::to_string(file->number())] = bytesOf(file->path());
    }
    for (const auto number : lostFiles(world + "/edits"))
      kept[std::to_string(number)] = bytesOf(lostAndFound(world + "/edits") + "/" + std::to_string(number));
    EXPECT_EQ(shown.size(), named) << where;
    EXPECT_EQ(kept.size(), FILES - named) << where;
    shown.merge(kept);
    EXPECT_EQ(shown, written_) << where;
  }

  // Opens all of them, and starts a service over one of each kind that they come down to.
  void expectNothingLostIn(std::size_t size,
                           const std::function<std::pair<std::string, std::string>(std::size_t)>& cut) {
    std::map<std::set<std::int64_t>, std::size_t> kinds;
    std::size_t refused = 0;
    for (const auto at : cuts(size)) {
      const auto [database, log] = cut(at);
      const auto named = openCut(database, log);
      named ? (void)kinds.emplace(*named, at) : (void)++refused;
    }
    for (const auto& [named, at] : kinds) {
      const auto [database, log] = cut(at);
      expectNothingLost(database, log, named.size(), "cut at " + std::to_string(at));
    }
    kinds_ = kinds.size();
    refused_ = refused;
  }

  static constexpr std::size_t FILES = 5;
  std::string killedDatabase_, killedLog_, closedDatabase_;
  std::map<std::string, std::string> written_;
  std::size_t kinds_ = 0, refused_ = 0;
};

TEST_F(CutQueueTest, NoPrivateFileIsLostWithADatabaseThatIsCutAnywhere) {
  ASSERT_EQ(written_.size(), FILES);
  expectNothingLostIn(closedDatabase_.size(),
                      [&](std::size_t at) { return std::pair(closedDatabase_.substr(0, at), std::string()); });
  EXPECT_GT(refused_, 0U);
  EXPECT_GE(kinds_, 1U) << "an empty one is as good as new";
}

TEST_F(CutQueueTest, NoPrivateFileIsLostWithALogThatIsCutAnywhere) {
  ASSERT_FALSE(killedLog_.empty());
  expectNothingLostIn(killedLog_.size(),
                      [&](std::size_t at) { return std::pair(killedDatabase_, killedLog_.substr(0, at)); });
  EXPECT_GE(kinds_, FILES) << "each commit is there or not";
}

}  // namespace
}  // namespace vondle
