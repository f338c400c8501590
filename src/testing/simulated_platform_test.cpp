#include "testing/simulated_platform.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(SimulatedPlatform, IsOneMachine) {
  SimulatedPlatform machine;
  const Platform platform = machine.platform();
  EXPECT_EQ(&platform.clock, &machine.scheduler);
  EXPECT_EQ(platform.users.homeOfCurrentUser(), SimulatedFiles::HOME);
  EXPECT_TRUE(platform.files.exists(*platform.users.homeOfCurrentUser()));
  EXPECT_TRUE(platform.files.applicationGroupContainer("group")->starts_with(*platform.users.homeOfCurrentUser()));
  EXPECT_EQ(platform.bundle.text("CFBundleExecutable"), "VondleFileProvider");
  platform.process.exit(3);
  EXPECT_EQ(machine.process.exits(), std::vector{3});
}

TEST(SimulatedPlatform, StampsFilesWithTheTimeItsTimersKeep) {
  SimulatedPlatform machine;
  const Platform platform = machine.platform();
  platform.scheduler.global().after(seconds(90), [&] { ASSERT_TRUE(platform.files.writeAtomically("/tmp/x", "")); });
  machine.scheduler.advance(seconds(100));
  EXPECT_EQ(platform.files.modificationTime("/tmp/x"), Timestamp{VirtualScheduler::START.secondsSince1970 + 90});
}

TEST(SimulatedPlatform, MakesOtherNamesForAnotherSeed) {
  SimulatedPlatform one(1), same(1), other(2);
  const std::string name = one.random.uuid();
  EXPECT_EQ(name, same.random.uuid());
  EXPECT_NE(name, other.random.uuid());
}

}  // namespace
}  // namespace vondle
