// Uploads over real parts: sockets, files, threads and timers, to a real vondle-storage; killed and resumed.

#include "upload/upload.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/content_target.h"
#include "api/vondle_api.h"
#include "config/config_loader.h"
#include "platform/linux/asio_scheduler.h"
#include "platform/linux/curl_url_session.h"
#include "platform/linux/helper_preview_renderer.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "platform/linux/linux_random.h"
#include "preview/client_thumb.h"
#include "storage_program.h"
#include "testing/captured_log.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_user_database.h"
#include "transfer/large_upload.h"
#include "transfer/limits.h"
#include "transfer/stats.h"
#include "transfer/throttled_transfer.h"
#include "upload/multipart_resume.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::Ge;
using testing::SizeIs;

constexpr const char* KEY = "key-of-ann-0123456789";
constexpr const char* ID = "new|/film.mov";
constexpr std::int64_t PART_SIZE = 32 << 20;  // as the storage service chooses
constexpr int PARTS = 4;
constexpr std::int64_t LARGE = 110 << 20;

// A PNG of one red dot.
const std::string PICTURE(
    "\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\0\1\0\0\0\1\x08\2\0\0\0\x90wS\xde\0\0\0\x0cIDATx\x9c"
    "c\xf8\xcf\xc0\0\0\3\1\1\0\xc9\xfe\x92\xef\0\0\0\0IEND\xae"
    "B`\x82",
    69);

// A home folder with the configuration of an account, and files to send; gone at the end.
class Home {
 public:
  explicit Home(int port) {
    std::string pattern = std::filesystem::temp_directory_path() / "vondle-upload-test-XXXXXX";
    path_ = ::mkdtemp(pattern.data());
    std::filesystem::create_directories(path_ + "/.vondle");
    write("/.vondle/config.json",
          json::serialize(json::Object{{"server", "http://127.0.0.1:" + std::to_string(port)}, {"api_key", KEY}}));
  }
  ~Home() { std::filesystem::remove_all(path_); }
  Home(const Home&) = delete;
  Home& operator=(const Home&) = delete;

  [[nodiscard]] const std::string& path() const { return path_; }
  std::string write(const std::string& name, std::string_view bytes) const {
    std::ofstream(path_ + name, std::ios::binary) << bytes;
    return path_ + name;
  }
  // Bytes of which no two parts are alike.
  [[nodiscard]] std::string writeLarge() const {
    std::ofstream file(path_ + "/film.mov", std::ios::binary);
    std::vector<std::uint64_t> numbers(1 << 17);
    std::uint64_t value = 7;
    for (std::int64_t written = 0; written < LARGE; written += 1 << 20) {
      for (auto& number : numbers) number = value = value * 6364136223846793005 + 1442695040888963407;
      file.write(reinterpret_cast<const char*>(numbers.data()), 1 << 20);
    }
    return path_ + "/film.mov";
  }

 private:
  std::string path_;
};

bool sameBytes(const std::string& one, const std::string& other) {
  std::ifstream a(one, std::ios::binary);
  std::ifstream b(other, std::ios::binary);
  std::string bytesOfA(1 << 20, '\0');
  std::string bytesOfB(1 << 20, '\0');
  while (a && b) {
    a.read(bytesOfA.data(), std::ssize(bytesOfA));
    b.read(bytesOfB.data(), std::ssize(bytesOfB));
    if (a.gcount() != b.gcount() || bytesOfA != bytesOfB) return false;
  }
  return a.eof() && b.eof();
}

// Sessions that count the files that go out, and call out when a given number of them begins.
class WatchedLoading final : public URLLoading {
 public:
  WatchedLoading(int upload, std::function<void()> reached) : upload_(upload), reached_(std::move(reached)) {}

  std::unique_ptr<URLSession> makeSession(URLSessionConfiguration configuration,
                                          URLSessionDelegate& delegate) override {
    return std::make_unique<Session>(*this, loading_.makeSession(configuration, delegate));
  }
  [[nodiscard]] int uploads() const { return uploads_; }

 private:
  class Session final : public URLSession {
   public:
    Session(WatchedLoading& owner, std::unique_ptr<URLSession> session) : owner_(owner), session_(std::move(session)) {}
    std::shared_ptr<URLSessionTask> dataTask(URLRequest request) override {
      return session_->dataTask(std::move(request));
    }
    std::shared_ptr<URLSessionTask> uploadTask(URLRequest request, std::string path) override {
      if (++owner_.uploads_ == owner_.upload_) owner_.reached_();
      return session_->uploadTask(std::move(request), std::move(path));
    }

   private:
    WatchedLoading& owner_;
    const std::unique_ptr<URLSession> session_;
  };

  CurlURLLoading loading_;
  const int upload_;
  const std::function<void()> reached_;
  std::atomic<int> uploads_ = 0;
};

// What uploads work with, all of it real but the keychain.
struct Client {
  // Calls out when so many files begin to go out.
  explicit Client(const std::string& home, int upload = 0, std::function<void()> reached = nullptr)
      : users(home), loading(upload, std::move(reached)) {}

  Result<std::string> send(UploadRequest request) {
    std::promise<Result<std::string>> key;
    upload({api, transfers, resume, thumbs, largeUpload, limits, files, scheduler, random}, std::move(request),
           progress, [&](Result<std::string> result) { key.set_value(std::move(result)); });
    return key.get_future().get();
  }
  Result<std::string> sendLarge(const std::string& file) {
    return send({.file = file, .to = "", .filename = "film.mov", .size = LARGE, .resumeID = ID});
  }

  // The entry of a file in the top folder.
  std::optional<Entry> entry(const std::string& name) {
    std::promise<Result<std::vector<Entry>>> listing;
    api.browsePath("", [&](Result<std::vector<Entry>> result) { listing.set_value(std::move(result)); });
    const auto entries = listing.get_future().get();
    if (!entries) return std::nullopt;
    for (const auto& entry : *entries)
      if (entry.name == name) return entry;
    return std::nullopt;
  }
  // Where its contents are, as they come from the server.
  Result<std::string> download(const Entry& entry) {
    std::promise<Result<Entry>> item;
    api.item(entry.id, [&](Result<Entry> result) { item.set_value(std::move(result)); });
    const auto fresh = item.get_future().get();
    if (!fresh) return failure(fresh.error());
    std::promise<Result<std::string>> path;
    transfers.download(fresh->url.value(), nullptr, 0, 0,
                       [&](Result<std::string> result) { path.set_value(std::move(result)); });
    return path.get_future().get();
  }
  Result<ThumbURLs> thumbURLs(const Entry& entry) {
    std::promise<Result<ThumbURLs>> urls;
    api.thumbURLs({entry.id}, [&](Result<ThumbURLs> result) { urls.set_value(std::move(result)); });
    return urls.get_future().get();
  }
  Result<json::Object> post(const std::string& endpoint, json::Object body) {
    std::promise<Result<json::Object>> reply;
    api.post(endpoint, std::move(body), [&](Result<json::Object> result) { reply.set_value(std::move(result)); });
    return reply.get_future().get();
  }
  // The numbers of the parts that the server holds of what is saved here.
  std::vector<std::int64_t> partsAtTheServer() {
    const auto saved = resume.load(ID).value();
    const auto status = post("upload-status", {{"key", saved.key}, {"upload_id", saved.uploadID}});
    std::vector<std::int64_t> numbers;
    for (const auto& part : status.value().at("parts").as_array()) numbers.push_back(part.at("part").as_int64());
    return numbers;
  }
  std::size_t slices() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(files.temporaryFolder()))
      count += entry.path().filename().string().starts_with("vondle-part-") ? 1 : 0;
    return count;
  }

  struct Users final : SimulatedUserDatabase {
    explicit Users(const std::string& path) { home = path; }
  };

  const Users users;
  LinuxFiles files{users};
  LinuxClock clock;
  LinuxRandom random;
  SimulatedKeychain keychain;
  AsioScheduler scheduler;
  HelperPreviewRenderer previews;
  WatchedLoading loading;
  ConfigLoader config{files, keychain, Paths(users)};
  Limits limits{clock, files, Paths(users).config()};
  LargeUpload largeUpload{clock, scheduler, files, limits, Paths(users).folder() + "/large_upload.json"};
  Stats stats{clock, scheduler, files};
  MultipartResume resume{files, clock};
  VondleAPI api{loading, clock, config, "test/1 (1); vondle"};
  ClientThumb thumbs{clock, scheduler, files, random, loading, previews};
  ThrottledTransfer transfers{{clock, scheduler, loading, files, random, limits, largeUpload, stats}};
  std::shared_ptr<Progress> progress = Progress::make();
};

class UploadOverNetworkTest : public testing::Test {
 protected:
  UploadOverNetworkTest() {
    std::ofstream(state_.path() + "/key") << KEY;
    std::filesystem::permissions(state_.path() + "/key", std::filesystem::perms::owner_read);
    program_ = std::make_unique<storage::StorageProgram>(std::vector<std::string>{
        "--root", state_.path() + "/state", "--listen", "127.0.0.1:0", "--account", "ann:" + state_.path() + "/key"});
    home_ = std::make_unique<Home>(program_->port());
  }

  // Sends the large file in a process of its own, which is killed when so many of its parts begin to go out.
  void sendAndBeKilled(const std::string& file, int part) {
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      Client client(home_->path(), part, [] { ::kill(::getpid(), SIGKILL); });
      static_cast<void>(client.sendLarge(file));
      ::_exit(1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << status;
  }
  void expectOnTheServer(Client& client, const std::string& name, const std::string& file) {
    const auto entry = client.entry(name);
    ASSERT_TRUE(entry);
    EXPECT_EQ(entry->size, static_cast<std::int64_t>(std::filesystem::file_size(file)));
    const auto downloaded = client.download(*entry);
    ASSERT_TRUE(downloaded) << downloaded.error().localizedDescription();
    EXPECT_TRUE(sameBytes(*downloaded, file));
  }

  CapturedLog log_;
  Home state_{0};
  std::unique_ptr<storage::StorageProgram> program_;
  std::unique_ptr<Home> home_;
};

TEST_F(UploadOverNetworkTest, AFileArrivesInOneRequestWithItsPreview) {
  const auto file = home_->write("/red.png", PICTURE);
  Client client(home_->path());
  const auto key = client.send({.file = file, .to = "", .filename = "red.png", .size = std::ssize(PICTURE)});
  ASSERT_TRUE(key) << key.error().localizedDescription();
  expectOnTheServer(client, "red.png", file);
  const auto entry = client.entry("red.png");
  EXPECT_EQ(entry->key, *key);
  const auto thumbs = client.thumbURLs(*entry);
  ASSERT_TRUE(thumbs);
  EXPECT_THAT(thumbs->urls, SizeIs(1));
  EXPECT_EQ(client.loading.uploads(), 1);
}

TEST_F(UploadOverNetworkTest, AnEmptyFileArrives) {
  const auto file = home_->write("/empty.txt", "");
  Client client(home_->path());
  ASSERT_TRUE(client.send({.file = file, .to = "", .filename = "empty.txt", .size = 0}));
  expectOnTheServer(client, "empty.txt", file);
}

TEST_F(UploadOverNetworkTest, ALargeFileArrivesInParts) {
  const auto file = home_->writeLarge();
  Client client(home_->path());
  const auto key = client.sendLarge(file);
  ASSERT_TRUE(key) << key.error().localizedDescription();
  EXPECT_EQ(client.loading.uploads(), PARTS);
  EXPECT_THAT(log_.messages(LogLevel::standard), Contains("multipart upload of " + *key + ": 4 parts of 32 MB"));
  expectOnTheServer(client, "film.mov", file);
  EXPECT_EQ(client.progress->completedUnitCount(), LARGE);
  EXPECT_FALSE(client.resume.load(ID));
  EXPECT_EQ(client.slices(), 0u);
}

// The last of four parts begins when at least one of the others is saved.
TEST_F(UploadOverNetworkTest, AKilledUploadGoesOnWithThePartsThatAreMissing) {
  const auto file = home_->writeLarge();
  sendAndBeKilled(file, PARTS);

  Client client(home_->path());
  const auto saved = client.resume.load(ID);
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->partSize, PART_SIZE);
  const auto sent = static_cast<int>(saved->etags.size());
  EXPECT_GE(sent, 1);
  EXPECT_LT(sent, PARTS);
  EXPECT_THAT(client.partsAtTheServer(), SizeIs(Ge(saved->etags.size())));
  EXPECT_FALSE(client.entry("film.mov"));
  const auto key = client.sendLarge(file);
  ASSERT_TRUE(key) << key.error().localizedDescription();
  EXPECT_EQ(*key, saved->key);
  EXPECT_THAT(log_.messages(LogLevel::standard), Contains("multipart upload of " + *key + ": resuming, " +
                                                          std::to_string(sent) + " of 4 parts already sent"));
  EXPECT_EQ(client.loading.uploads(), PARTS - sent);
  expectOnTheServer(client, "film.mov", file);
}

TEST_F(UploadOverNetworkTest, AnUploadThatIsKilledAgainAndAgainArrives) {
  const auto file = home_->writeLarge();
  for (const int part : {1, PARTS, 1, 1}) sendAndBeKilled(file, part);
  Client client(home_->path());
  const auto sent = static_cast<int>(client.resume.load(ID).value().etags.size());
  ASSERT_TRUE(client.sendLarge(file));
  EXPECT_EQ(client.loading.uploads(), PARTS - sent);
  expectOnTheServer(client, "film.mov", file);
}

TEST_F(UploadOverNetworkTest, ACancelledUploadGoesOnWithThePartsThatAreMissing) {
  const auto file = home_->writeLarge();
  {
    std::weak_ptr<Progress> progress;
    Client client(home_->path(), PARTS, [&] { progress.lock()->cancel(); });
    progress = client.progress;
    const auto key = client.sendLarge(file);
    ASSERT_FALSE(key);
    EXPECT_TRUE(key.error().is(COCOA_ERROR_DOMAIN, USER_CANCELLED) || key.error().is(URL_ERROR_DOMAIN, URL_CANCELLED));
  }
  Client client(home_->path());
  const auto sent = static_cast<int>(client.resume.load(ID).value().etags.size());
  EXPECT_GE(sent, 1);
  EXPECT_LT(sent, PARTS);
  EXPECT_EQ(client.slices(), 0u);
  ASSERT_TRUE(client.sendLarge(file));
  EXPECT_EQ(client.loading.uploads(), PARTS - sent);
  expectOnTheServer(client, "film.mov", file);
}

TEST_F(UploadOverNetworkTest, AnUploadThatTheServerForgotBeginsAfresh) {
  const auto file = home_->writeLarge();
  sendAndBeKilled(file, PARTS);
  Client client(home_->path());
  const auto saved = client.resume.load(ID).value();
  ASSERT_TRUE(client.post("upload-abort", {{"key", saved.key}, {"upload_id", saved.uploadID}}));
  const auto key = client.sendLarge(file);
  ASSERT_TRUE(key) << key.error().localizedDescription();
  EXPECT_NE(*key, saved.key);
  EXPECT_THAT(log_.messages(LogLevel::standard),
              Contains("saved multipart upload of " + saved.key + " can't be resumed, starting again"));
  EXPECT_EQ(client.loading.uploads(), PARTS);
  expectOnTheServer(client, "film.mov", file);
}

}  // namespace
}  // namespace vondle
