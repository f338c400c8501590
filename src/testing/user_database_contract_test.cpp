#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

#include <gmock/gmock.h>

#include "platform/linux/linux_user_database.h"
#include "testing/simulated_user_database.h"

namespace vondle {
namespace {

template <class T>
class UserDatabaseContract : public testing::Test {
 protected:
  T users_;
};
using Databases = testing::Types<LinuxUserDatabase, SimulatedUserDatabase>;
TYPED_TEST_SUITE(UserDatabaseContract, Databases);

TYPED_TEST(UserDatabaseContract, GivesAbsoluteFolders) {
  EXPECT_THAT(this->users_.homeOfCurrentUser().value(), testing::StartsWith("/"));
  EXPECT_THAT(this->users_.fallbackHome(), testing::StartsWith("/"));
}

TEST(LinuxUserDatabase, TakesTheRecordNotTheEnvironment) {
  setenv("HOME", "/nowhere", 1);
  EXPECT_EQ(LinuxUserDatabase().homeOfCurrentUser(), getpwuid(getuid())->pw_dir);
}

TEST(LinuxUserDatabase, FallsBackToTheEnvironmentThenToTheRoot) {
  setenv("HOME", "/some/home", 1);
  EXPECT_EQ(LinuxUserDatabase().fallbackHome(), "/some/home");
  setenv("HOME", "", 1);
  EXPECT_EQ(LinuxUserDatabase().fallbackHome(), "/");
  unsetenv("HOME");
  EXPECT_EQ(LinuxUserDatabase().fallbackHome(), "/");
}

}  // namespace
}  // namespace vondle
