#include "service/leftovers.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>

#include <gmock/gmock.h>

#include "testing/captured_log.h"

namespace vondle {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LeftoversTest : public testing::Test {
 protected:
  LeftoversTest() {
    char pattern[] = "/tmp/vondle-leftovers-XXXXXX";
    folder_ = ::mkdtemp(pattern);
  }
  ~LeftoversTest() override { std::filesystem::remove_all(folder_); }

  void make(const std::string& name) const { std::ofstream(folder_ + "/" + name) << "text"; }
  [[nodiscard]] std::set<std::string> names() const {
    std::set<std::string> names;
    for (const auto& file : std::filesystem::directory_iterator(folder_)) names.insert(file.path().filename());
    return names;
  }

  std::string folder_;
  CapturedLog log_;
};

TEST_F(LeftoversTest, FilesWithThePrefixGoAndNothingElse) {
  for (const auto* name : {".vondle-a1b2c3", ".vondle-zzzzzz", "anchor.json", ".vondl", "x.vondle-a1b2c3"}) make(name);
  std::filesystem::create_directory(folder_ + "/.vondle-folder");
  std::filesystem::create_symlink("anchor.json", folder_ + "/.vondle-link");
  removeLeftovers(folder_, REPLACEMENT_PREFIX);
  EXPECT_THAT(names(), ElementsAre(".vondl", ".vondle-folder", ".vondle-link", "anchor.json", "x.vondle-a1b2c3"));
  EXPECT_THAT(log_.messages(), ElementsAre("removed 2 unfinished file(s) in " + folder_));
}

TEST_F(LeftoversTest, WithoutAPrefixEveryFileGoes) {
  make("some-uuid");
  make(".hidden");
  removeLeftovers(folder_, "");
  EXPECT_THAT(names(), IsEmpty());
}

TEST_F(LeftoversTest, AFolderThatIsNotThereHasNone) {
  removeLeftovers(folder_ + "/nowhere", "");
  EXPECT_THAT(log_.messages(), IsEmpty());
}

}  // namespace
}  // namespace vondle
