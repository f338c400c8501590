#include "service/mount/mount.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "mount_rig.h"

namespace vondle {
namespace {

const std::string ROOT = ROOT_CONTAINER.text;

class MountTest : public testing::Test {
 protected:
  ScratchFolder scratch_;
  MountRig rig_{scratch_};
};

TEST_F(MountTest, ShowsFoldersAndFiles) {
  rig_.extension.addFolder("10", ROOT, "Documents");
  rig_.extension.addFile("11", "10", "thesis.txt", "To be or not to be\n");
  rig_.start();
  EXPECT_EQ(rig_.shell("ls"), "Documents\n");
  EXPECT_EQ(rig_.shell("ls -a Documents"), ".\n..\nthesis.txt\n");
  EXPECT_EQ(rig_.shell("cat Documents/thesis.txt"), "To be or not to be\n");
}

}  // namespace
}  // namespace vondle
