#include "service/instance_lock.h"

#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include <gtest/gtest.h>

namespace vondle {
namespace {

class InstanceLockTest : public testing::Test {
 protected:
  InstanceLockTest() {
    char pattern[] = "/tmp/vondle-lock-XXXXXX";
    folder_ = ::mkdtemp(pattern);
    path_ = folder_ + "/lock";
  }
  ~InstanceLockTest() override { std::filesystem::remove_all(folder_); }

  std::string folder_;
  std::string path_;
};

TEST_F(InstanceLockTest, ASecondOwnerIsRefusedWithTheFirstOnesProcessID) {
  const auto first = InstanceLock::acquire(path_, "the state folder");
  ASSERT_TRUE(first);
  const auto second = InstanceLock::acquire(path_, "the state folder");
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().description, "the state folder is in use by process " + std::to_string(::getpid()));
}

TEST_F(InstanceLockTest, IsGivenUpWithItsObject) {
  {
    ASSERT_TRUE(InstanceLock::acquire(path_, "it"));
  }
  EXPECT_TRUE(InstanceLock::acquire(path_, "it"));
}

TEST_F(InstanceLockTest, WaitsForAnOwnerThatIsJustEnding) {
  const pid_t ended = ::fork();
  if (ended == 0) ::_exit(0);
  siginfo_t info{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(ended), &info, WEXITED | WNOWAIT), 0);  // and nobody takes notice
  auto first = InstanceLock::acquire(path_, "it");
  ASSERT_TRUE(first);
  std::ofstream(path_) << ended << '\n';
  std::promise<bool> second;
  std::thread waiting([&] { second.set_value(InstanceLock::acquire(path_, "it").has_value()); });
  auto answer = second.get_future();
  EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  std::optional<InstanceLock> owner(std::move(*first));
  owner.reset();
  EXPECT_TRUE(answer.get());
  waiting.join();
  ::waitpid(ended, nullptr, 0);
}

TEST_F(InstanceLockTest, IsMovedNotCopied) {
  auto first = InstanceLock::acquire(path_, "it");
  ASSERT_TRUE(first);
  std::optional<InstanceLock> second(std::move(*first));
  EXPECT_FALSE(InstanceLock::acquire(path_, "it"));
  second.reset();
  EXPECT_TRUE(InstanceLock::acquire(path_, "it"));
}

TEST_F(InstanceLockTest, AFileLeftByALongerNumberIsRewritten) {
  std::ofstream(path_) << "99999999999999\nrubbish\n";
  const auto lock = InstanceLock::acquire(path_, "it");
  ASSERT_TRUE(lock);
  std::string text;
  std::getline(std::ifstream(path_), text, '\0');
  EXPECT_EQ(text, std::to_string(::getpid()) + "\n");
}

TEST_F(InstanceLockTest, NeverFollowsALink) {
  std::ofstream(folder_ + "/thesis") << "text";
  std::filesystem::create_symlink(folder_ + "/thesis", path_);
  EXPECT_FALSE(InstanceLock::acquire(path_, "it"));
  EXPECT_EQ(std::filesystem::file_size(folder_ + "/thesis"), 4u);
}

}  // namespace
}  // namespace vondle
