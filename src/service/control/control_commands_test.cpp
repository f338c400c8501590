#include "service/control/control_commands.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fileprovider/error_codes.h"
#include "service/control/control_protocol.h"
#include "service/control/control_text.h"
#include "service/listing/folder_listing.h"
#include "service/manager/service_manager.h"
#include "service/replica/local_name.h"
#include "testing/captured_log.h"
#include "testing/fake_extension.h"
#include "testing/simulated_files.h"
#include "testing/simulated_random.h"
#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

// As it goes over the socket.
json::Object sent(const json::Object& object) {
  return json::parseObject(json::serialize(object)).value();
}

struct RecordedReply : ControlReply {
  std::vector<json::Object> progresses;
  std::optional<json::Object> result;
  std::string code;
  std::string message;
  std::function<void()> abandoned;

  void progress(const json::Object& progress) override { progresses.push_back(sent(progress)); }
  void finish(const json::Object& object) override {
    EXPECT_FALSE(result) << "answered twice";
    result = sent(object);
  }
  void fail(std::string_view itsCode, std::string_view itsMessage) override {
    EXPECT_FALSE(result) << "answered twice";
    EXPECT_TRUE(code.empty()) << "answered twice";
    code = itsCode;
    message = itsMessage;
  }
  void whenAbandoned(std::function<void()> handler) override { abandoned = std::move(handler); }
};

class ControlCommandsTest : public testing::Test {
 protected:
  ControlCommandsTest() {
    char pattern[] = "/tmp/vondle-commands-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    std::filesystem::create_directory(folder_ + "/temporary");
    extension_ = std::make_unique<FakeExtension>(folder_ + "/temporary");
    extension_->addFolder("docs", ROOT_CONTAINER.text, "docs");
    extension_->addFile("a", ROOT_CONTAINER.text, "a.txt", "hello");
    extension_->addFile("dots", ROOT_CONTAINER.text, "..", "x");
    for (int i = 0; i < 20; ++i) {
      extension_->addFile("f" + std::to_string(i), ROOT_CONTAINER.text, "f" + std::to_string(i), "0123456789");
    }

    replica_ = Replica::open(folder_ + "/replica.db").value();
    tree_ = std::make_unique<Tree>(*replica_, scheduler_);
    edits_ = LocalEdits::open(folder_ + "/edits.db", *tree_, scheduler_, random_).value();
    contents_ = ContentStore::open(folder_ + "/contents", *tree_, *extension_, errors_, scheduler_, scheduler_).value();
    tree_->subscribe([this](const auto& changes) { contents_->apply(changes); });
    edited_ = EditedContents::open(folder_ + "/edits", contents_, edits_, *tree_, scheduler_, scheduler_).value();
    listing_ = std::make_shared<FolderListing>(*tree_, *extension_, errors_, scheduler_, scheduler_);
    follower_ = std::make_shared<Follower>(*extension_, *tree_, scheduler_, scheduler_, files_, "/home/tester/anchor",
                                           [] { return MonotonicTime{}; });
    sender_ =
        EditSender::make({.services = {.extension = *extension_,
                                       .edits = edits_,
                                       .contents = edited_,
                                       .sync = [this](auto completion) { follower_->sync(std::move(completion)); },
                                       .scheduler = scheduler_},
                          .tree = *tree_,
                          .errors = errors_,
                          .clock = scheduler_,
                          .temporaryNames = TemporaryNames()});
    sender_->start();
    limiter_ = std::make_shared<CacheLimiter>(CacheLimits{.reserve = 3 * GIBIBYTE}, *replica_, contents_, files_);
    files_.put(contents_->folder() + "/there", "");
    keeper_ = std::make_shared<Keeper>(*tree_, contents_, listing_, scheduler_);
    tree_->subscribe([this](const auto& changes) { keeper_->apply(changes); });
    commands_ = std::make_unique<ControlCommands>(ControlCommands::Parts{.tree = *tree_,
                                                                         .contents = contents_,
                                                                         .errors = errors_,
                                                                         .follower = follower_,
                                                                         .keeper = keeper_,
                                                                         .limiter = limiter_,
                                                                         .edits = edits_,
                                                                         .sender = sender_,
                                                                         .extension = *extension_,
                                                                         .scheduler = scheduler_,
                                                                         .clock = scheduler_,
                                                                         .waitUntilShown = [this] { ++shown_; },
                                                                         .stop = [this] { ++stops_; },
                                                                         .mountPath = "/home/ann/Vondle",
                                                                         .editedFiles = folder_ + "/edits",
                                                                         .readOnly = true,
                                                                         .pid = 77});
    listing_->require(ROOT_INODE, {}, nullptr, [](const std::optional<Error>& error) { EXPECT_FALSE(error); });
    scheduler_.runUntilIdle();
  }
  ~ControlCommandsTest() override {
    sender_->stop();
    keeper_->stop();
    extension_->letAnswersGo();
    follower_->stop();
    contents_->close(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    listing_->close(Error(COCOA_ERROR_DOMAIN, USER_CANCELLED));
    scheduler_.runUntilIdle();
    commands_.reset();
    keeper_.reset();
    limiter_.reset();
    sender_.reset();
    edited_.reset();
    edits_.reset();
    follower_.reset();
    contents_.reset();
    listing_.reset();
    std::filesystem::remove_all(folder_);
  }

  std::shared_ptr<RecordedReply> ask(const json::Object& request) {
    auto reply = std::make_shared<RecordedReply>();
    commands_->handle(sent(request), reply);
    scheduler_.runUntilIdle();
    return reply;
  }

  // What programs do in the top folder.
  void makeFolder(const std::string& name) {
    edits_->createFolder(ROOT_INODE, name, 0700, [](const Result<ItemAttributes>& made) { EXPECT_TRUE(made); });
    scheduler_.runUntilIdle();
  }
  void remove(const std::string& name) {
    edits_->removeFile(ROOT_INODE, name, [](const Result<void>& done) { EXPECT_TRUE(done); });
    scheduler_.runUntilIdle();
  }

  Inode inode(const std::string& identifier) { return replica_->inodeOf({identifier}).value(); }

  json::Array allFiles() {
    json::Array inodes;
    for (int i = 0; i < 20; ++i) inodes.push_back(json::Value(inode("f" + std::to_string(i))));
    return inodes;
  }

  CapturedLog log_;
  std::string folder_;
  VirtualScheduler scheduler_;
  SimulatedRandom random_;
  SimulatedFiles files_{scheduler_};
  LastErrors errors_;
  std::unique_ptr<FakeExtension> extension_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<ContentStore> contents_;
  std::shared_ptr<LocalEdits> edits_;
  std::shared_ptr<EditedContents> edited_;
  std::shared_ptr<EditSender> sender_;
  std::shared_ptr<FolderListing> listing_;
  std::shared_ptr<Follower> follower_;
  std::shared_ptr<Keeper> keeper_;
  std::shared_ptr<CacheLimiter> limiter_;
  std::unique_ptr<ControlCommands> commands_;
  int shown_ = 0;
  int stops_ = 0;
};

TEST_F(ControlCommandsTest, BadRequestsAreRefusedAndChangeNothing) {
  const std::vector<json::Object> cases = {
      {{"command", "fly"}},
      {{"command", ""}},
      {{"command", "info"}},
      {{"command", "info"}, {"inode", "1"}},
      {{"command", "info"}, {"inode", 0}},
      {{"command", "info"}, {"inode", -1}},
      {{"command", "info"}, {"inode", 1e300}},
      {{"command", "fetch"}},
      {{"command", "fetch"}, {"inodes", 1}},
      {{"command", "fetch"}, {"inodes", json::Array{1, "2"}}},
      {{"command", "evict"}, {"inodes", json::Array{-1}}},
      {{"command", "evict"}, {"inodes", json::Object{}}},
      {{"command", "keep"}},
      {{"command", "unkeep"}, {"inodes", "all"}},
      {{"command", "thumbnail"}, {"width", 1}, {"height", 1}},
      {{"command", "thumbnail"}, {"inode", 1}},
      {{"command", "thumbnail"}, {"inode", 1}, {"width", 0}, {"height", 1}},
      {{"command", "trash-restore"}},
      {{"command", "trash-delete"}, {"ids", "x"}},
      {{"command", "trash-delete"}, {"ids", json::Array{1}}},
  };
  for (const auto& request : cases) {
    const auto reply = ask(request);
    EXPECT_EQ(reply->code, control::CODE_MALFORMED) << json::serialize(request);
    EXPECT_NE(reply->message, "");
    EXPECT_FALSE(reply->result);
  }
}

TEST_F(ControlCommandsTest, StatusTellsWhatIsGoingOnAndWhatIsWrong) {
  scheduler_.advance(seconds(5));
  errors_.note(inode("a"), Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no \xff server"), scheduler_.now());
  extension_->holdAnswers();
  ask({{"command", "fetch"}, {"inodes", json::Array{inode("f1")}}});

  const auto status = ask({{"command", "status"}})->result.value();
  EXPECT_EQ(json::text(status, "mount"), "/home/ann/Vondle");
  EXPECT_EQ(json::integer(status, "pid"), 77);
  EXPECT_EQ(json::boolean(status, "read_only"), true);
  EXPECT_EQ(json::number(status, "uptime"), 5);
  EXPECT_EQ(json::integer(status, "items"), 23);
  EXPECT_EQ(json::integer(status, "files_here"), 0);
  const auto* transfers = json::listOfObjects(status, "transfers");
  ASSERT_EQ(transfers->size(), 1u);
  EXPECT_EQ(json::text(transfers->at(0).get_object(), "path"), "/f1");
  const auto* names = json::listOfObjects(status, "names");
  ASSERT_EQ(names->size(), 1u);
  EXPECT_EQ(json::text(names->at(0).get_object(), "server_name"), "..");
  EXPECT_EQ(json::text(names->at(0).get_object(), "path"), "/" + localName("..", "dots"));
  EXPECT_EQ(json::integer(status, "names_total"), 1);
  const auto* errors = json::listOfObjects(status, "errors");
  ASSERT_EQ(errors->size(), 1u);
  EXPECT_EQ(json::text(errors->at(0).get_object(), "path"), "/a.txt");
  EXPECT_EQ(json::text(errors->at(0).get_object(), "error"), "no \\xff server");
  EXPECT_TRUE(json::parse(json::serialize(status))) << "it must be UTF-8 whatever the server says";
}

TEST_F(ControlCommandsTest, InfoTellsWhatIsKnownOfAnItem) {
  const auto before = ask({{"command", "info"}, {"inode", inode("a")}})->result.value();
  EXPECT_EQ(json::text(before, "path"), "/home/ann/Vondle/a.txt");
  EXPECT_EQ(json::text(before, "name"), "a.txt");
  EXPECT_EQ(json::text(before, "identifier"), "a");
  EXPECT_EQ(json::integer(before, "size"), 5);
  EXPECT_EQ(json::text(before, "state"), "on the server only");
  EXPECT_FALSE(json::text(before, "last_error"));

  ask({{"command", "fetch"}, {"inodes", json::Array{inode("a")}}});
  EXPECT_EQ(json::text(ask({{"command", "info"}, {"inode", inode("a")}})->result.value(), "state"), "here");

  errors_.note(inode("a"), Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"), scheduler_.now());
  const auto failed = ask({{"command", "info"}, {"inode", inode("a")}})->result.value();
  EXPECT_EQ(json::text(failed, "last_error"), "no server");
  EXPECT_EQ(json::text(failed, "last_error_at"), formatISO8601(scheduler_.now()));

  const auto root = ask({{"command", "info"}, {"inode", ROOT_INODE}})->result.value();
  EXPECT_EQ(json::text(root, "path"), "/home/ann/Vondle");
  EXPECT_EQ(json::boolean(root, "listed"), true);
  EXPECT_EQ(ask({{"command", "info"}, {"inode", 99999}})->code, control::CODE_NO_SUCH_ITEM);
}

TEST_F(ControlCommandsTest, FetchHasAFewUnderWayAtATime) {
  extension_->holdAnswers();
  const auto reply = ask({{"command", "fetch"}, {"inodes", allFiles()}});
  EXPECT_EQ(extension_->heldCount(), ControlCommands::FETCHES_AT_ONCE);
  extension_->letOneGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(extension_->heldCount(), ControlCommands::FETCHES_AT_ONCE);
  scheduler_.advance(ControlCommands::PROGRESS_INTERVAL);
  ASSERT_GE(reply->progresses.size(), 2u);
  EXPECT_EQ(json::integer(reply->progresses.back(), "done"), 1);
  EXPECT_EQ(json::integer(reply->progresses.back(), "files"), 20);
  EXPECT_EQ(json::integer(reply->progresses.back(), "bytes"), 200);
  EXPECT_GE(json::integer(reply->progresses.back(), "bytes_done"), 10);
  EXPECT_FALSE(reply->result);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "done"), 20);
  EXPECT_EQ(contents_->filesHere(), 20u);
  const auto progressesThen = reply->progresses.size();
  scheduler_.advance(seconds(10));
  EXPECT_EQ(reply->progresses.size(), progressesThen) << "nothing is left running";
}

TEST_F(ControlCommandsTest, FetchTellsWhichFilesFailed) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  const auto reply = ask({{"command", "fetch"}, {"inodes", json::Array{inode("a"), inode("a"), 99999}}});
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "done"), 0);
  const auto* failures = json::listOfObjects(*reply->result, "failures");
  ASSERT_EQ(failures->size(), 2u) << "a file named twice is fetched once";
  std::vector<std::string_view> codes;
  for (const auto& failure : *failures) codes.push_back(json::text(failure.get_object(), "code").value());
  EXPECT_THAT(codes, testing::UnorderedElementsAre(control::CODE_UNREACHABLE, control::CODE_NO_SUCH_ITEM));
}

TEST_F(ControlCommandsTest, FetchOfNothingIsDone) {
  const auto reply = ask({{"command", "fetch"}, {"inodes", json::Array{}}});
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "done"), 0);
}

TEST_F(ControlCommandsTest, AnAbandonedFetchIsCancelled) {
  extension_->holdAnswers();
  const auto reply = ask({{"command", "fetch"}, {"inodes", allFiles()}});
  ASSERT_TRUE(reply->abandoned);
  reply->abandoned();
  scheduler_.runUntilIdle();
  EXPECT_EQ(extension_->cancelledFetches(), static_cast<int>(ControlCommands::FETCHES_AT_ONCE));
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(contents_->filesHere(), 0u);
}

TEST_F(ControlCommandsTest, EvictDropsTheLocalCopy) {
  ask({{"command", "fetch"}, {"inodes", json::Array{inode("a"), inode("f0")}}});
  ASSERT_EQ(contents_->filesHere(), 2u);
  const auto reply = ask({{"command", "evict"}, {"inodes", json::Array{inode("a")}}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 1);
  EXPECT_EQ(contents_->filesHere(), 1u);

  extension_->holdAnswers();
  ask({{"command", "fetch"}, {"inodes", json::Array{inode("a")}}});
  const auto busy = ask({{"command", "evict"}, {"inodes", json::Array{inode("a")}}});
  EXPECT_EQ(json::integer(*busy->result, "done"), 0);
  EXPECT_EQ(json::listOfObjects(*busy->result, "failures")->size(), 1u);
}

TEST_F(ControlCommandsTest, KeepWaitsUntilEverythingIsHere) {
  extension_->addFile("letter", "docs", "letter", "0123456789");
  extension_->addFile("diary", "docs", "diary", "0123456789");
  extension_->holdAnswers();
  const auto reply =
      ask({{"command", "keep"}, {"inodes", json::Array{inode("docs"), inode("a"), inode("a")}}, {"wait", true}});
  EXPECT_FALSE(reply->result);
  while (extension_->heldCount() > 0) {
    extension_->letOneGo();
    scheduler_.advance(seconds(1));
  }
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "done"), 2);
  EXPECT_EQ(json::integer(*reply->result, "files"), 3);
  EXPECT_TRUE(json::list(*reply->result, "failures")->empty());
  EXPECT_EQ(json::integer(reply->progresses.back(), "files"), 3);
  EXPECT_EQ(json::integer(reply->progresses.back(), "bytes"), 25);
  EXPECT_EQ(json::integer(reply->progresses.back(), "bytes_done"), 25);
  EXPECT_EQ(contents_->filesHere(), 3u);

  const auto status = *ask({{"command", "status"}})->result;
  EXPECT_EQ(json::integer(*json::object(status, "kept"), "items"), 2);
  EXPECT_EQ(json::integer(*json::object(status, "kept"), "waiting"), 0);
  const auto info = [&](const std::string& id) { return *ask({{"command", "info"}, {"inode", inode(id)}})->result; };
  EXPECT_EQ(json::text(info("docs"), "policy"), "kept downloaded");
  EXPECT_EQ(json::text(info("diary"), "policy"), "kept downloaded with its folder");
  EXPECT_EQ(json::boolean(info("diary"), "kept"), true);
  EXPECT_EQ(json::text(info("f0"), "policy"), "downloaded when read");
  EXPECT_EQ(json::boolean(info("f0"), "kept"), false);
}

TEST_F(ControlCommandsTest, KeepWaitsForFoldersThatWereNeverListed) {
  extension_->addFile("letter", "docs", "letter", "0123456789");
  extension_->holdAnswers();
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{inode("docs")}}, {"wait", true}});
  while (extension_->listingsOf("docs") == 0 && extension_->heldCount() > 0) {
    EXPECT_FALSE(reply->result);
    scheduler_.advance(seconds(1));
    extension_->letOneGo();
  }
  extension_->letAnswersGo();
  scheduler_.advance(seconds(1));
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "files"), 1);
}

TEST_F(ControlCommandsTest, KeepReturnsAtOnceWhenItIsNotToWait) {
  extension_->holdAnswers();
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{inode("a")}}});
  while (!reply->result && extension_->letOneGo()) scheduler_.runUntilIdle();
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "done"), 1);
  EXPECT_EQ(contents_->filesHere(), 0u);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(contents_->filesHere(), 1u);
}

TEST_F(ControlCommandsTest, KeepTellsWhatCouldNotBeFetchedAndGoesOnTrying) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{inode("a")}}, {"wait", true}});
  scheduler_.advance(seconds(1));
  ASSERT_TRUE(reply->result);
  const auto* failures = json::listOfObjects(*reply->result, "failures");
  ASSERT_EQ(failures->size(), 1u);
  EXPECT_EQ(json::text(failures->front().get_object(), "code"), control::CODE_UNREACHABLE);
  extension_->failFetches(std::nullopt);
  scheduler_.advance(seconds(5));
  EXPECT_EQ(contents_->filesHere(), 1u);
}

TEST_F(ControlCommandsTest, KeepTriesAtOnceWhatHasFailedBefore) {
  extension_->failFetches(Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE, "no server"));
  ask({{"command", "keep"}, {"inodes", json::Array{inode("a")}}});
  extension_->failFetches(std::nullopt);
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{inode("a")}}, {"wait", true}});
  scheduler_.advance(seconds(1));
  ASSERT_TRUE(reply->result);
  EXPECT_TRUE(json::list(*reply->result, "failures")->empty());
  EXPECT_EQ(contents_->filesHere(), 1u);
}

TEST_F(ControlCommandsTest, KeepWorksWhileTheServerCannotBeAsked) {
  extension_->failLookups(Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{inode("docs")}}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 1);
  EXPECT_TRUE(replica_->attributes(inode("docs"))->keepDownloaded);
  ask({{"command", "unkeep"}, {"inodes", json::Array{inode("docs")}}});
  EXPECT_FALSE(replica_->attributes(inode("docs"))->keepDownloaded);
}

TEST_F(ControlCommandsTest, KeepGoesOnWhenTheClientLeaves) {
  extension_->holdAnswers();
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{inode("a")}}, {"wait", true}});
  while (contents_->transfers().empty() && extension_->letOneGo()) scheduler_.runUntilIdle();
  reply->abandoned();
  scheduler_.advance(seconds(1));
  EXPECT_TRUE(reply->result);
  extension_->letAnswersGo();
  scheduler_.runUntilIdle();
  EXPECT_EQ(contents_->filesHere(), 1u);
}

TEST_F(ControlCommandsTest, KeepRefusesWhatItIsNotFor) {
  makeFolder("new");
  const auto made = replica_->lookup(ROOT_INODE, "new")->inode;
  const auto reply = ask({{"command", "keep"}, {"inodes", json::Array{ROOT_INODE, made, 4711, inode("a")}}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 1);
  EXPECT_EQ(json::list(*reply->result, "failures")->size(), 3u);
}

TEST_F(ControlCommandsTest, UnkeepDropsTheLocalCopies) {
  extension_->addFile("letter", "docs", "letter", "0123456789");
  ask({{"command", "keep"}, {"inodes", json::Array{inode("docs"), inode("a")}}});
  ASSERT_EQ(contents_->filesHere(), 2u);
  const auto inside = ask({{"command", "unkeep"}, {"inodes", json::Array{inode("letter")}}});
  EXPECT_EQ(json::integer(*inside->result, "done"), 0);
  EXPECT_EQ(json::list(*inside->result, "failures")->size(), 1u);
  EXPECT_EQ(contents_->filesHere(), 2u);

  const auto reply = ask({{"command", "unkeep"}, {"inodes", json::Array{inode("docs"), inode("a")}}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 2);
  EXPECT_EQ(contents_->filesHere(), 0u);
  EXPECT_EQ(keeper_->status().items, 0u);
}

TEST_F(ControlCommandsTest, EvictRefusesWhatIsKept) {
  ask({{"command", "keep"}, {"inodes", json::Array{inode("a")}}});
  const auto reply = ask({{"command", "evict"}, {"inodes", json::Array{inode("a")}}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 0);
  EXPECT_EQ(contents_->filesHere(), 1u);
}

TEST_F(ControlCommandsTest, ThumbnailAnswersTheImage) {
  extension_->addThumbnail("a", "foobar");
  const auto thumbnail = [&](std::int64_t number) {
    return ask({{"command", "thumbnail"}, {"inode", number}, {"width", 64}, {"height", 48}});
  };
  EXPECT_EQ(json::text(*thumbnail(static_cast<std::int64_t>(inode("a")))->result, "image"), "Zm9vYmFy");
  EXPECT_EQ(thumbnail(static_cast<std::int64_t>(inode("f0")))->code, control::CODE_FAILED);
  EXPECT_EQ(thumbnail(4711)->code, control::CODE_NO_SUCH_ITEM);
}

TEST_F(ControlCommandsTest, StatusAndInfoTellWhatIsNotOnTheServerYet) {
  makeFolder("new");
  remove("f3");
  extension_->failChanges(Error(FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA, "Vondle is full."));
  auto status = ask({{"command", "status"}})->result.value();
  const auto* edits = json::object(status, "edits");
  ASSERT_NE(edits, nullptr);
  EXPECT_EQ(json::integer(*edits, "total"), 2);
  EXPECT_EQ(json::integer(*edits, "failing"), 0);
  scheduler_.advance(seconds(2));

  status = ask({{"command", "status"}})->result.value();
  edits = json::object(status, "edits");
  EXPECT_EQ(json::integer(*edits, "failing"), 2);
  const auto* list = json::listOfObjects(*edits, "list");
  ASSERT_EQ(list->size(), 2U);
  const auto& first = list->at(0).get_object();
  EXPECT_EQ(json::text(first, "path"), "/new");
  EXPECT_EQ(json::text(first, "what"), "new folder");
  EXPECT_EQ(json::text(first, "state"), "retrying");
  EXPECT_EQ(json::text(first, "error"), "Vondle is full.");
  EXPECT_EQ(json::integer(first, "attempts"), 1);
  EXPECT_GT(json::number(first, "next_try").value(), scheduler_.now().secondsSince1970);
  const auto& second = list->at(1).get_object();
  EXPECT_EQ(json::text(second, "path"), "/f3");
  EXPECT_EQ(json::text(second, "what"), "deleted");

  const auto folder = replica_->lookup(ROOT_INODE, "new")->inode;
  const auto info = ask({{"command", "info"}, {"inode", folder}})->result.value();
  EXPECT_EQ(json::text(*json::object(info, "edit"), "error"), "Vondle is full.");
  EXPECT_EQ(json::object(ask({{"command", "info"}, {"inode", inode("a")}})->result.value(), "edit"), nullptr);
}

TEST_F(ControlCommandsTest, StatusTellsOfContentsThatTheQueueDoesNotRemember) {
  EXPECT_EQ(json::find(*json::object(*ask({{"command", "status"}})->result, "edits"), "lost"), nullptr);
  std::filesystem::create_directory(folder_ + "/edits/lost+found");
  std::ofstream(folder_ + "/edits/lost+found/7") << "draft";
  const auto status = ask({{"command", "status"}})->result.value();
  const auto* edits = json::object(status, "edits");
  EXPECT_EQ(json::integer(*edits, "lost"), 1);
  EXPECT_EQ(json::text(*edits, "lost_in"), folder_ + "/edits/lost+found");
}

TEST_F(ControlCommandsTest, DrainingTellsHowFarItIsAndWhatIsLeft) {
  makeFolder("one");
  makeFolder("two");
  extension_->holdAnswers();
  const auto reply = ask({{"command", "drain"}});
  scheduler_.advance(seconds(1));
  EXPECT_FALSE(reply->result);
  ASSERT_FALSE(reply->progresses.empty());
  EXPECT_EQ(json::integer(reply->progresses.back(), "left"), 2);
  extension_->failNextChanges(1, {FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA, "Vondle is full."});
  extension_->letAnswersGo();
  scheduler_.advance(seconds(1));
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "left"), 1);
  const auto* left = json::listOfObjects(*reply->result, "edits");
  ASSERT_EQ(left->size(), 1U);
  EXPECT_EQ(json::text(left->at(0).get_object(), "error"), "Vondle is full.");
}

TEST_F(ControlCommandsTest, DrainingGoesOnWhenNobodyIsToldAnyMore) {
  makeFolder("one");
  extension_->holdAnswers();
  const auto reply = ask({{"command", "drain"}});
  reply->abandoned();
  scheduler_.advance(seconds(3));
  const auto told = reply->progresses.size();
  extension_->letAnswersGo();
  scheduler_.advance(seconds(3));
  EXPECT_EQ(reply->progresses.size(), told);
  EXPECT_FALSE(reply->result);
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(ControlCommandsTest, SyncTriesFailedEditsAtOnce) {
  makeFolder("one");
  extension_->failNextChanges(4, {FILE_PROVIDER_ERROR_DOMAIN, INSUFFICIENT_QUOTA});
  scheduler_.advance(seconds(60));
  ASSERT_EQ(extension_->changes().size(), 4U);
  ask({{"command", "sync"}});
  scheduler_.advance(seconds(0.1));
  EXPECT_EQ(edits_->pendingCount(), 0U);
}

TEST_F(ControlCommandsTest, TheTrashIsListed) {
  extension_->addFile("t1", TRASH_CONTAINER.text, "old \xff.txt", "12345");
  extension_->addFolder("t2", TRASH_CONTAINER.text, "stuff");
  const auto result = ask({{"command", "trash"}})->result.value();
  const auto* items = json::listOfObjects(result, "items");
  ASSERT_EQ(items->size(), 2U);
  EXPECT_EQ(json::text(items->at(0).get_object(), "id"), "t1");
  EXPECT_EQ(json::integer(items->at(0).get_object(), "size"), 5);
  EXPECT_EQ(json::boolean(items->at(1).get_object(), "folder"), true);
}

TEST_F(ControlCommandsTest, ATrashThatCannotBeListedSaysWhy) {
  extension_->failListings(Error(API_ERROR_DOMAIN, 401));
  for (const auto* command : {"trash", "trash-empty"})
    EXPECT_EQ(ask({{"command", command}})->code, control::CODE_NOT_AUTHENTICATED) << command;
}

TEST_F(ControlCommandsTest, WhatIsInTheTrashComesBackAndIsShown) {
  extension_->addFile("t1", TRASH_CONTAINER.text, "back.txt", "12345");
  const auto reply = ask({{"command", "trash-restore"}, {"ids", json::Array{"t1", "a", "nowhere"}}});
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "done"), 1);
  const auto* failures = json::listOfObjects(*reply->result, "failures");
  ASSERT_EQ(failures->size(), 2U) << "what is not in the trash is left where it is";
  EXPECT_EQ(json::text(failures->at(0).get_object(), "id"), "a");
  EXPECT_EQ(json::text(failures->at(0).get_object(), "code"), control::CODE_NO_SUCH_ITEM);
  EXPECT_EQ(extension_->itemNamed("back.txt")->parentItemIdentifier, ROOT_CONTAINER);
}

TEST_F(ControlCommandsTest, OnlyWhatIsInTheTrashIsRemovedForGood) {
  extension_->addFile("t1", TRASH_CONTAINER.text, "one", "1");
  extension_->addFile("t2", TRASH_CONTAINER.text, "two", "2");
  const auto reply = ask({{"command", "trash-delete"}, {"ids", json::Array{"t1", "a"}}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 1);
  EXPECT_FALSE(extension_->itemNamed("one"));
  EXPECT_TRUE(extension_->itemNamed("two"));
  EXPECT_EQ(extension_->itemNamed("a.txt")->parentItemIdentifier, ROOT_CONTAINER);
  EXPECT_TRUE(extension_->lastRequest().isFileViewerRequest);
}

TEST_F(ControlCommandsTest, EmptyingTheTrashGoesOnWhenSingleItemsFail) {
  for (int i = 0; i < 20; ++i) extension_->addFile(std::to_string(i), TRASH_CONTAINER.text, "old", "1");
  extension_->failNextChanges(3, {API_ERROR_DOMAIN, 500});
  const auto reply = ask({{"command", "trash-empty"}});
  EXPECT_EQ(json::integer(*reply->result, "done"), 17);
  EXPECT_EQ(json::listOfObjects(*reply->result, "failures")->size(), 3U);
  EXPECT_FALSE(reply->progresses.empty());
  EXPECT_EQ(json::integer(*ask({{"command", "trash-empty"}})->result, "done"), 3);
}

TEST_F(ControlCommandsTest, StopAnswersBeforeItStops) {
  const auto reply = ask({{"command", "stop"}});
  ASSERT_TRUE(reply->result);
  EXPECT_EQ(json::integer(*reply->result, "pid"), 77);
  EXPECT_EQ(stops_, 1);
}

TEST(ControlCodeTest, ErrorsHaveTheCodeThatSaysWhatToDo) {
  const struct {
    Error error;
    std::string_view code;
  } cases[] = {
      {Error(API_ERROR_DOMAIN, API_NOT_CONFIGURED), control::CODE_NOT_CONFIGURED},
      {Error(API_ERROR_DOMAIN, 401), control::CODE_NOT_AUTHENTICATED},
      {Error(API_ERROR_DOMAIN, 403), control::CODE_NOT_AUTHENTICATED},
      {Error(API_ERROR_DOMAIN, 404), control::CODE_NO_SUCH_ITEM},
      {Error(API_ERROR_DOMAIN, 500), control::CODE_FAILED},
      {Error(API_ERROR_DOMAIN, API_MALFORMED), control::CODE_FAILED},
      {Error(URL_ERROR_DOMAIN, URL_TIMED_OUT), control::CODE_UNREACHABLE},
      {Error(URL_ERROR_DOMAIN, URL_CANNOT_FIND_HOST), control::CODE_UNREACHABLE},
      {Error(FILE_PROVIDER_ERROR_DOMAIN, SERVER_UNREACHABLE), control::CODE_UNREACHABLE},
      {Error(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM), control::CODE_NO_SUCH_ITEM},
      {Error(FILE_PROVIDER_ERROR_DOMAIN, NOT_AUTHENTICATED), control::CODE_NOT_AUTHENTICATED},
      {Error(COCOA_ERROR_DOMAIN, USER_CANCELLED), control::CODE_FAILED},
  };
  for (const auto& each : cases) EXPECT_EQ(controlCode(each.error), each.code) << each.error.localizedDescription();
}

// The manager over the same parts.
class ServiceManagerTest : public ControlCommandsTest {
 protected:
  ServiceManager manager_{"/home/ann/Vondle", *tree_, contents_, follower_, scheduler_};

  std::optional<Error> evict(const std::string& identifier) {
    std::optional<Error> answer = Error(COCOA_ERROR_DOMAIN, 0, "no answer");
    manager_.evictItem({identifier}, [&](std::optional<Error> error) { answer = std::move(error); });
    scheduler_.runUntilIdle();
    return answer;
  }
  std::string path(const ItemIdentifier& identifier) {
    std::string answer;
    manager_.getUserVisibleURL(identifier, [&](Result<std::string> result) {
      answer = result ? *result : std::to_string(result.error().code);
    });
    scheduler_.runUntilIdle();
    return answer;
  }
  std::string identifierAt(const std::string& itsPath) {
    std::string answer;
    manager_.getIdentifierForUserVisibleFile(itsPath, [&](Result<ItemIdentifier> result) {
      answer = result ? result->text : std::to_string(result.error().code);
    });
    scheduler_.runUntilIdle();
    return answer;
  }
};

TEST_F(ServiceManagerTest, ItemsAndTheirPathsLeadToEachOther) {
  for (const auto* identifier : {"a", "docs", "dots"}) EXPECT_EQ(identifierAt(path({identifier})), identifier);
  EXPECT_EQ(path({"a"}), "/home/ann/Vondle/a.txt");
  EXPECT_EQ(path(ROOT_CONTAINER), "/home/ann/Vondle");
  EXPECT_EQ(identifierAt("/home/ann/Vondle"), ROOT_CONTAINER.text);
}

TEST_F(ServiceManagerTest, WhatIsNotThereIsNoSuchItem) {
  const auto noSuchItem = std::to_string(NO_SUCH_ITEM);
  EXPECT_EQ(path({"unknown"}), noSuchItem);
  for (const auto* elsewhere : {"/home/ann/Vondle/nothing", "/home/ann/VondleX/a.txt", "/home/ann", "/", "", "a.txt"}) {
    EXPECT_EQ(identifierAt(elsewhere), noSuchItem) << elsewhere;
  }
  EXPECT_TRUE(evict("unknown")->is(FILE_PROVIDER_ERROR_DOMAIN, NO_SUCH_ITEM));
}

TEST_F(ServiceManagerTest, EvictsContents) {
  ask({{"command", "fetch"}, {"inodes", json::Array{inode("a")}}});
  ASSERT_EQ(contents_->filesHere(), 1u);
  EXPECT_EQ(evict("a"), std::nullopt);
  EXPECT_EQ(contents_->filesHere(), 0u);
  EXPECT_EQ(evict("a"), std::nullopt) << "nothing to drop is success";
}

}  // namespace
}  // namespace vondle
