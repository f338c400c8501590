#include "service/thumbnails/thumbnail_cache.h"

#include <glib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <gmock/gmock.h>

#include "service/thumbnails/thumbnail_png.h"

namespace vondle {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

class ThumbnailCacheTest : public testing::Test {
 protected:
  ~ThumbnailCacheTest() override { fs::remove_all(folder_); }

  static std::string makeFolder() {
    std::string pattern = fs::temp_directory_path() / "vondle-cache-XXXXXX";
    return ::mkdtemp(pattern.data());
  }
  static std::string read(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  [[nodiscard]] std::vector<std::string> files() const {
    std::vector<std::string> files;
    if (!fs::exists(top_)) return files;
    for (const auto& each : fs::recursive_directory_iterator(top_))
      if (!each.is_directory()) files.push_back(fs::relative(each.path(), top_));
    std::ranges::sort(files);
    return files;
  }
  static mode_t modeOf(const fs::path& path) {
    struct stat status{};
    EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
    return status.st_mode & 0777;
  }

  const std::string pixel_ = png::onePixel();
  const ScaledPicture small_ = {pixel_, pixel_, pixel_};
  const ThumbnailSubject subject_ = {.uri = "file:///m/a.jpg", .modified = 17, .size = 4};
  const fs::path folder_ = makeFolder();
  const fs::path top_ = folder_ / "deep" / "thumbnails";
  ThumbnailCache cache_{top_, "1.2"};
};

TEST_F(ThumbnailCacheTest, LiesWhereTheEnvironmentSaysOrInTheHomeFolder) {
  EXPECT_EQ(ThumbnailCache::folderOf("/home/ann", std::nullopt), "/home/ann/.cache/thumbnails");
  EXPECT_EQ(ThumbnailCache::folderOf("/home/ann", "/var/cache/ann"), "/var/cache/ann/thumbnails");
  EXPECT_EQ(ThumbnailCache::folderOf("/home/ann", ""), "/home/ann/.cache/thumbnails");
  EXPECT_EQ(ThumbnailCache::folderOf("/home/ann", "relative"), "/home/ann/.cache/thumbnails");
}

TEST_F(ThumbnailCacheTest, EscapesNamesAsFileManagersDo) {
  EXPECT_EQ(ThumbnailCache::uriOf("/m/Größe 1.jpg"), "file:///m/Gr%C3%B6%C3%9Fe%201.jpg");
  EXPECT_EQ(ThumbnailCache::uriOf("/m/a#b%c?d.jpg"), "file:///m/a%23b%25c%3Fd.jpg");
  EXPECT_EQ(ThumbnailCache::uriOf("/m/[a] (b) {c}.jpg"), "file:///m/%5Ba%5D%20(b)%20%7Bc%7D.jpg");
  EXPECT_EQ(ThumbnailCache::uriOf("/m/'a' \"b\" & c;d.jpg"), "file:///m/'a'%20%22b%22%20&%20c%3Bd.jpg");
}

TEST_F(ThumbnailCacheTest, ThumbnailsNameTheFileAndItsTimeAndAreForTheUserAlone) {
  ASSERT_TRUE(cache_.store(subject_, small_));
  const auto name = fs::path(files().at(0)).filename().native();
  const std::unique_ptr<char, void (*)(void*)> sum(
      g_compute_checksum_for_string(G_CHECKSUM_MD5, subject_.uri.c_str(), -1), g_free);
  EXPECT_EQ(name, std::string(sum.get()) + ".png");
  EXPECT_THAT(files(), ElementsAre("large/" + name, "normal/" + name)) << "no x-large of a small picture";
  for (const auto* kind : {"normal", "large"}) {
    EXPECT_EQ(png::textsOf(read(top_ / kind / name)), (png::Texts{{"Thumb::URI", "file:///m/a.jpg"},
                                                                  {"Thumb::MTime", "17"},
                                                                  {"Thumb::Size", "4"},
                                                                  {"Software", "Vondle 1.2"}}));
    EXPECT_EQ(modeOf(top_ / kind / name), 0600u);
    EXPECT_EQ(modeOf(top_ / kind), 0700u);
  }
  EXPECT_EQ(modeOf(top_), 0700u);
  EXPECT_EQ(modeOf(top_.parent_path()), 0700u);
}

TEST_F(ThumbnailCacheTest, WhatThisProgramWroteIsRemovedInAllVersionsAndNothingOfOthers) {
  auto large = small_;
  large[2] = png::withTexts(pixel_, {{"k", "v"}});
  ASSERT_TRUE(cache_.store(subject_, large));
  ASSERT_TRUE(ThumbnailCache(top_, "0.9").store({.uri = "file:///m/b.jpg"}, small_));
  ASSERT_TRUE(cache_.storeFailure({.uri = "file:///m/c.jpg"}));
  ASSERT_TRUE(ThumbnailCache(top_, "0.9").storeFailure({.uri = "file:///m/d.jpg"}));
  const auto write = [this](const std::string& name, const std::string& software) {
    fs::create_directories((top_ / name).parent_path());
    std::ofstream(top_ / name) << png::withTexts(pixel_, {{"Thumb::URI", "file:///m/e.jpg"}, {"Software", software}});
  };
  write("normal/other.png", "Vondleesque");
  write("large/other.png", "Desktop 3");
  write("fail/desktop-3/other.png", "Vondle 1");
  std::ofstream(top_ / "normal" / "broken.png") << "Vondle ";
  cache_.removeOwn();
  EXPECT_THAT(files(),
              ElementsAre("fail/desktop-3/other.png", "large/other.png", "normal/broken.png", "normal/other.png"));
  fs::remove_all(top_);
  cache_.removeOwn();
  EXPECT_FALSE(fs::exists(top_));
}

TEST_F(ThumbnailCacheTest, TheLargestSizeIsKeptOnlyWhereItShowsMore) {
  auto large = small_;
  large[2] = png::withTexts(pixel_, {{"k", "v"}});
  ASSERT_TRUE(cache_.store(subject_, large));
  EXPECT_EQ(files().size(), 3u);
  ASSERT_TRUE(cache_.store(subject_, small_));
  EXPECT_EQ(files().size(), 2u) << "and the former one goes";
}

TEST_F(ThumbnailCacheTest, KnowsWhatIsThereForTheFileAndItsTime) {
  EXPECT_FALSE(cache_.has(subject_));
  ASSERT_TRUE(cache_.store(subject_, small_));
  EXPECT_TRUE(cache_.has(subject_));
  auto other = subject_;
  other.modified = 18;
  EXPECT_FALSE(cache_.has(other));
  other = subject_;
  other.uri += "x";
  EXPECT_FALSE(cache_.has(other));
  const auto normal = top_ / files().back();
  std::ofstream(normal) << png::withTexts(pixel_, {{"Thumb::URI", "file:///m/b.jpg"}, {"Thumb::MTime", "17"}});
  EXPECT_FALSE(cache_.has(subject_)) << "a file manager would not take another file's";
  std::ofstream(normal) << png::withTexts(pixel_, {{"Thumb::URI", subject_.uri}, {"Thumb::MTime", "17"}});
  EXPECT_TRUE(cache_.has(subject_));
  fs::remove_all(top_ / "normal");
  EXPECT_FALSE(cache_.has(subject_)) << "a file manager would look for that size";
}

TEST_F(ThumbnailCacheTest, TakesWhatOtherProgramsWrote) {
  ASSERT_TRUE(cache_.store(subject_, small_));
  for (const auto& file : files())
    std::ofstream(top_ / file, std::ios::binary)
        << png::withTexts(pixel_, {{"Software", "other"}, {"Thumb::MTime", "17.250000"}, {"Thumb::URI", subject_.uri}});
  EXPECT_TRUE(cache_.has(subject_));
}

TEST_F(ThumbnailCacheTest, WhatIsNoThumbnailDoesNotCount) {
  ASSERT_TRUE(cache_.store(subject_, small_));
  const auto path = top_ / files().at(0);
  const auto bytes = read(path);
  for (const std::string& contents : {std::string(), std::string("text"), pixel_, bytes.substr(0, 40)}) {
    std::ofstream(path, std::ios::binary) << contents;
    EXPECT_FALSE(cache_.has(subject_)) << contents.size();
  }
  fs::remove(path);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  EXPECT_FALSE(cache_.has(subject_)) << "nor does it make anybody wait";
}

TEST_F(ThumbnailCacheTest, FailuresAreWrittenDownForThisVersionAndGoWithASuccess) {
  EXPECT_FALSE(cache_.hasFailure(subject_));
  ASSERT_TRUE(cache_.storeFailure(subject_));
  EXPECT_TRUE(cache_.hasFailure(subject_));
  EXPECT_FALSE(cache_.has(subject_));
  EXPECT_EQ(modeOf(top_ / "fail"), 0700u);
  EXPECT_TRUE(fs::is_directory(top_ / "fail" / "vondle-1.2"));
  EXPECT_FALSE(ThumbnailCache(top_, "1.3").hasFailure(subject_));
  ASSERT_TRUE(cache_.store(subject_, small_));
  EXPECT_FALSE(cache_.hasFailure(subject_));
}

TEST_F(ThumbnailCacheTest, ThumbnailsMoveWithTheFile) {
  ASSERT_TRUE(cache_.store(subject_, small_));
  auto moved = subject_;
  moved.uri = "file:///m/folder/b.jpg";
  cache_.move(subject_.uri, moved.uri);
  EXPECT_TRUE(cache_.has(moved));
  EXPECT_FALSE(cache_.has(subject_));
  EXPECT_EQ(files().size(), 2u);
  for (const auto& file : files()) EXPECT_EQ(modeOf(top_ / file), 0600u);
  cache_.remove(moved.uri);
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ThumbnailCacheTest, OneThatCannotBeMovedIsRemoved) {
  ASSERT_TRUE(cache_.store(subject_, small_));
  for (const auto& file : files()) std::ofstream(top_ / file, std::ios::binary) << "text";
  cache_.move(subject_.uri, "file:///m/b.jpg");
  EXPECT_THAT(files(), IsEmpty());
}

TEST_F(ThumbnailCacheTest, TellsOfAllThatIsThere) {
  EXPECT_THAT(cache_.entries(), IsEmpty());
  ASSERT_TRUE(cache_.store(subject_, small_));
  ASSERT_TRUE(cache_.storeFailure({.uri = "file:///m/b.jpg", .modified = 1, .size = 1}));
  std::ofstream(top_ / "normal" / "note.txt") << "no thumbnail";
  std::ofstream(top_ / "normal" / "broken.png") << "no thumbnail";
  std::vector<std::string> uris;
  for (const auto& entry : cache_.entries()) uris.push_back(cache_.uriOfEntry(entry).value_or("none"));
  EXPECT_THAT(uris, UnorderedElementsAre("file:///m/a.jpg", "file:///m/a.jpg", "file:///m/b.jpg", "none"));
}

TEST_F(ThumbnailCacheTest, OnlyPlainPicturesOfTheRightSizesAreAcceptable) {
  EXPECT_TRUE(ThumbnailCache::isAcceptable(small_));
  EXPECT_FALSE(ThumbnailCache::isAcceptable({}));
  EXPECT_FALSE(ThumbnailCache::isAcceptable({pixel_, pixel_}));
  for (std::size_t i = 0; i < small_.size(); ++i) {
    auto bad = small_;
    bad[i] = "GIF89a";
    EXPECT_FALSE(ThumbnailCache::isAcceptable(bad)) << i;
    bad[i] = png::withTexts(pixel_, {{"Thumb::URI", "file:///etc/passwd"}});
    EXPECT_FALSE(ThumbnailCache::isAcceptable(bad)) << i;
  }
}

TEST_F(ThumbnailCacheTest, AFolderOfOthersIsNotWrittenTo) {
  fs::create_directories(top_.parent_path());
  fs::path theirs = "/usr";
  if (::geteuid() == 0) {
    theirs = folder_ / "theirs";
    fs::create_directory(theirs);
    ASSERT_EQ(::chown(theirs.c_str(), 54'321, 54'321), 0);
  }
  fs::create_directory_symlink(theirs, top_);
  const auto stored = cache_.store(subject_, small_);
  ASSERT_FALSE(stored);
  EXPECT_THAT(stored.error().localizedDescription(), HasSubstr("thumbnails"));
  EXPECT_FALSE(fs::exists(theirs / "large"));
}

TEST_F(ThumbnailCacheTest, NorOneThatOthersCanWriteTo) {
  fs::create_directories(top_ / "large");
  fs::permissions(top_ / "large", fs::perms::all);
  EXPECT_FALSE(cache_.store(subject_, small_));
  EXPECT_TRUE(fs::is_empty(top_ / "large"));
}

TEST_F(ThumbnailCacheTest, ALinkOfTheUsersOwnIsFollowed) {
  fs::create_directories(top_.parent_path());
  fs::create_directory(folder_ / "disk");
  fs::permissions(folder_ / "disk", fs::perms::owner_all);
  fs::create_directory_symlink(folder_ / "disk", top_);
  ASSERT_TRUE(cache_.store(subject_, small_));
  EXPECT_TRUE(fs::exists(folder_ / "disk" / "large"));
}

TEST_F(ThumbnailCacheTest, WhereNothingCanBeWrittenThatIsTheAnswerAndNothingStays) {
  fs::create_directories(top_.parent_path());
  std::ofstream(top_) << "a file";
  EXPECT_FALSE(cache_.store(subject_, small_));
  fs::remove(top_);

  ASSERT_TRUE(cache_.store(subject_, small_));
  struct rlimit before{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &before), 0);
  const auto handler = std::signal(SIGXFSZ, SIG_IGN);
  struct rlimit full = before;
  full.rlim_cur = 20;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &full), 0);
  auto changed = subject_;
  changed.modified = 18;
  const auto stored = cache_.store(changed, small_);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &before), 0);
  std::signal(SIGXFSZ, handler);
  EXPECT_FALSE(stored);
  EXPECT_TRUE(cache_.has(subject_)) << "what was there stays whole";
  EXPECT_EQ(files().size(), 2u) << "and nothing unfinished is left";
}

}  // namespace
}  // namespace vondle
