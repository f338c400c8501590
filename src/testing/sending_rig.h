#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "service/edits/edit_sender.h"
#include "service/listing/folder_listing.h"
#include "testing/captured_log.h"
#include "testing/fake_extension.h"
#include "testing/simulated_desktop_notices.h"
#include "testing/simulated_random.h"
#include "testing/virtual_scheduler.h"

namespace vondle {

// The queue, the private files and the tree are real; the server is the test's. Programs are played by the calls that
// the mount makes for them.
class SendingRig : public testing::Test {
 protected:
  static inline const std::string ROOT = ROOT_CONTAINER.text;

  static Error unreachable() {
    return Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "out of reach")
        .withUnderlying({URL_ERROR_DOMAIN, URL_CANNOT_CONNECT_TO_HOST});
  }

  SendingRig() {
    char pattern[] = "/tmp/vondle-sender-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    std::filesystem::create_directory(folder_ + "/temporary");
    extension_ = std::make_unique<FakeExtension>(folder_ + "/temporary");
  }
  ~SendingRig() override {
    EXPECT_THAT(extension_->mistakes(), testing::IsEmpty());
    end();
    std::filesystem::remove_all(folder_);
  }

  // A service over what is on disk; the folders named are listed.
  void begin() {
    replica_ = Replica::open(folder_ + "/replica.db").value();
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    edits_ = LocalEdits::open(folder_ + "/edits.db", *tree_, scheduler_, random_).value();
    contents_ = ContentStore::open(folder_ + "/contents", *tree_, *extension_, errors_, scheduler_, scheduler_).value();
    tree_->subscribe([this](const auto& changes) { contents_->apply(changes); });
    edited_ = EditedContents::open(folder_ + "/edits", contents_, edits_, *tree_, scheduler_, scheduler_).value();
    listing_ = std::make_shared<FolderListing>(*tree_, *extension_, errors_, scheduler_, scheduler_);
    sender_ = EditSender::make({.services = {.extension = *extension_,
                                             .edits = edits_,
                                             .contents = edited_,
                                             .sync = [this](auto completion) { sync(std::move(completion)); },
                                             .scheduler = scheduler_},
                                .tree = *tree_,
                                .errors = errors_,
                                .clock = scheduler_,
                                .temporaryNames = TemporaryNames(),
                                .notices = std::make_shared<Notices>(desktop_, "Vondle", scheduler_, scheduler_)});
    sender_->start();
    scheduler_.runUntilIdle();
    list(ROOT);
  }
  void end() {
    if (!sender_) return;
    sender_->stop();
    extension_->letAnswersGo();
    scheduler_.advance(seconds(2));
    listing_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    contents_->close({COCOA_ERROR_DOMAIN, USER_CANCELLED});
    scheduler_.runUntilIdle();
    sender_.reset();
    edited_.reset();
    listing_.reset();
    contents_.reset();
    edits_.reset();
    tree_.reset();
    replica_.reset();
  }
  // What the follower does.
  void sync(Completion<std::optional<Error>> completion) {
    ++syncs_;
    std::move(completion)(serverError_);
  }

  void list(const std::string& identifier) {
    bool isListed = false;
    listing_->require(inode(identifier), {}, nullptr, [&](const std::optional<Error>& error) { isListed = !error; });
    scheduler_.runUntilIdle();
    EXPECT_TRUE(isListed) << identifier;
  }

  Inode inode(const std::string& identifier) { return replica_->inodeOf({identifier}).value_or(0); }
  // By a path from the root.
  Inode at(std::string_view path) {
    Inode inode = ROOT_INODE;
    while (!path.empty() && inode != 0) {
      const auto slash = path.find('/');
      const auto found = replica_->lookup(inode, path.substr(0, slash));
      inode = found ? found->inode : 0;
      path = slash == std::string_view::npos ? "" : path.substr(slash + 1);
    }
    return inode;
  }
  static std::string nameIn(const std::string& path) { return path.substr(path.rfind('/') + 1); }
  Inode folderOf(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? ROOT_INODE : at(path.substr(0, slash));
  }

  // What programs do. None waits for the server.
  void create(const std::string& path, std::string_view bytes = "") {
    const auto file = edited_->makeEmpty().value();
    put(*file, bytes);
    edits_->createFile(folderOf(path), nameIn(path), file->number(), 0600, [&](const Result<ItemAttributes>& made) {
      ASSERT_TRUE(made) << made.error().localizedDescription();
      edited_->keep(made->inode, file);
      edits_->touchContents(made->inode, file->size(), file->modified());
    });
    scheduler_.runUntilIdle();
  }
  void makeFolder(const std::string& path) {
    edits_->createFolder(folderOf(path), nameIn(path), 0700, [&](const Result<ItemAttributes>& made) {
      EXPECT_TRUE(made) << path << made.error().localizedDescription();
    });
    scheduler_.runUntilIdle();
  }
  void move(const std::string& from, const std::string& to) {
    edits_->rename(folderOf(from), nameIn(from), folderOf(to), nameIn(to), true, expectDone(from));
    scheduler_.runUntilIdle();
  }
  void remove(const std::string& path) {
    edits_->removeFile(folderOf(path), nameIn(path), expectDone(path));
    scheduler_.runUntilIdle();
  }
  void removeFolder(const std::string& path) {
    edits_->removeFolder(folderOf(path), nameIn(path), expectDone(path));
    scheduler_.runUntilIdle();
  }
  void write(const std::string& path, std::string_view bytes) {
    const auto inode = at(path);
    bool isWritten = false;
    edited_->require(inode, false, {}, nullptr, [&](const Result<std::shared_ptr<EditedFile>>& file) {
      ASSERT_TRUE(file) << file.error().localizedDescription();
      put(**file, bytes);
      edits_->touchContents(inode, (*file)->size(), (*file)->modified());
      isWritten = true;
    });
    scheduler_.runUntilIdle();
    EXPECT_TRUE(isWritten) << path;
  }
  static void put(EditedFile& file, std::string_view bytes) {
    const EditedFile::Lease lease(file);
    ASSERT_TRUE(lease);
    ASSERT_EQ(::ftruncate(file.descriptor(), 0), 0);
    ASSERT_EQ(::pwrite(file.descriptor(), bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  static LocalEdits::Done expectDone(const std::string& what) {
    return [what](const Result<void>& done) { EXPECT_TRUE(done) << what; };
  }

  // These are sent and arrive, but the answers are lost and the server is out of reach from then on; with or without a
  // restart after it. Its news has come, though.
  void loseAnswers(const std::vector<std::string>& names, bool restarts) {
    extension_->holdAnswers();
    settle();
    for (std::size_t i = 0; i < names.size(); ++i) {
      extension_->loseNextAnswer(Error(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST, "lost"));
      ASSERT_TRUE(extension_->letOneGo());
    }
    extension_->letAnswersGo();
    extension_->failListings(unreachable());
    scheduler_.runUntilIdle();
    if (restarts) {
      end();
      begin();
    }
    for (const auto& name : names) tree_->applyUpdates({*extension_->itemNamed(name)}, [] {});
    scheduler_.runUntilIdle();
  }
  // Nothing is left to be sent, and the folder shows what the server has.
  void expectOnlyOnServer(const std::vector<std::string>& wanted) {
    extension_->failListings(std::nullopt);
    sender_->sendNow();
    scheduler_.advance(seconds(10));
    EXPECT_THAT(server(), testing::ElementsAreArray(wanted));
    EXPECT_EQ(edits_->pendingCount(), 0U) << onlyError();
    edits_->listAgain(ROOT_CONTAINER);
    scheduler_.runUntilIdle();
    list(ROOT);
    const auto isAtTop = [](const std::string& path) { return !path.substr(0, path.size() - 1).contains('/'); };
    EXPECT_EQ(replica_->children(ROOT_INODE).size(), static_cast<std::size_t>(std::ranges::count_if(wanted, isAtTop)));
  }

  // Until nothing is left to do without waiting for a retry.
  void settle() { scheduler_.advance(seconds(1.5)); }
  [[nodiscard]] std::vector<std::string> server() const { return extension_->tree(); }
  [[nodiscard]] std::vector<std::string> changes() const { return extension_->changes(); }
  [[nodiscard]] std::string onlyError() const {
    const auto pending = edits_->pending();
    return pending.size() == 1 ? pending[0].lastError : fmt::format("{} edits", pending.size());
  }

  std::string folder_;
  VirtualScheduler scheduler_;
  SimulatedRandom random_;
  LastErrors errors_;
  CapturedLog log_;
  std::shared_ptr<SimulatedDesktopNotices> desktop_ = std::make_shared<SimulatedDesktopNotices>();
  std::unique_ptr<FakeExtension> extension_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<LocalEdits> edits_;
  std::shared_ptr<ContentStore> contents_;
  std::shared_ptr<EditedContents> edited_;
  std::shared_ptr<FolderListing> listing_;
  std::shared_ptr<EditSender> sender_;
  int syncs_ = 0;
  std::optional<Error> serverError_;
};

}  // namespace vondle
