#include "config/paths.h"

#include <gtest/gtest.h>

#include "testing/simulated_user_database.h"

namespace vondle {
namespace {

TEST(Paths, AreBelowTheHomeOfTheUserDatabase) {
  SimulatedUserDatabase users;
  users.home = "/home/ann";
  users.fallback = "/container";
  const Paths paths(users);
  EXPECT_EQ(paths.home(), "/home/ann");
  EXPECT_EQ(paths.config(), "/home/ann/.vondle/config.json");
  EXPECT_EQ(paths.keychainMarker(), "/home/ann/.vondle/keychain_ok");
}

TEST(Paths, AreBelowTheProcessesHomeWithoutARecord) {
  SimulatedUserDatabase users;
  users.fallback = "/container";
  for (const auto& none : {std::optional<std::string>(), std::optional<std::string>("")}) {
    users.home = none;
    EXPECT_EQ(Paths(users).home(), "/container");
  }
}

TEST(ParentOfPath, IsEverythingBeforeTheLastSlash) {
  const struct {
    std::string_view path, parent;
  } CASES[] = {{"a/b/c", "a/b"}, {"a/b", "a"}, {"/a", ""}, {"a", ""}, {"name", ""}, {"", ""}, {"a/", "a"}, {"/", ""}};
  for (const auto& [path, parent] : CASES) EXPECT_EQ(parentOfPath(path), parent) << path;
}

}  // namespace
}  // namespace vondle
