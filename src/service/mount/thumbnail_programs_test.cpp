#include "service/mount/thumbnail_programs.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <array>
#include <thread>

#include <gtest/gtest.h>

namespace vondle {
namespace {

// Calls itself something else as long as it lives; to be used on the main thread, whose name is the program's.
class Disguise {
 public:
  explicit Disguise(const char* name) {
    ::prctl(PR_GET_NAME, former_.data());
    ::prctl(PR_SET_NAME, name);
  }
  ~Disguise() { ::prctl(PR_SET_NAME, former_.data()); }
  Disguise(const Disguise&) = delete;
  Disguise& operator=(const Disguise&) = delete;

 private:
  std::array<char, 16> former_{};
};

bool isSeenInAThread(const char* threadName) {
  bool isSeen = false;
  std::thread([&] {
    ::prctl(PR_SET_NAME, threadName);
    isSeen = isOfThumbnailProgram(::gettid());
  }).join();
  return isSeen;
}

TEST(ThumbnailPrograms, AreKnownByNamesAsTheKernelKeepsThem) {
  for (const auto* name : {"tumblerd", "gdk-pixbuf-thum", "totem-video-thu", "evince-thumbnai", "ffmpegthumbnail"})
    EXPECT_TRUE(isThumbnailProgram(name)) << name;
  for (const auto* name : {"", "tumbler", "tumblerd2", "gdk-pixbuf-thumbnailer", "cat", "thunar", "nautilus"})
    EXPECT_FALSE(isThumbnailProgram(name)) << name;
}

TEST(ThumbnailPrograms, AThreadBelongsToItsProgramWhateverItsOwnName) {
  EXPECT_FALSE(isOfThumbnailProgram(::gettid()));
  EXPECT_FALSE(isSeenInAThread("tumblerd"));
  const Disguise disguise("tumblerd");
  EXPECT_TRUE(isOfThumbnailProgram(::gettid()));
  EXPECT_TRUE(isSeenInAThread("pool-worker"));
}

TEST(ThumbnailPrograms, AThreadThatIsNotThereIsOfNone) {
  EXPECT_FALSE(isOfThumbnailProgram(0));
  EXPECT_FALSE(isOfThumbnailProgram(-1));
}

}  // namespace
}  // namespace vondle
