#include "items/identifiers.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(Identifiers, MapTheTopFolderToTheRootContainerAndBack) {
  EXPECT_EQ(identifierFor("root"), ROOT_CONTAINER);
  EXPECT_EQ(serverIDFor(ROOT_CONTAINER), "root");
}

TEST(Identifiers, LeaveEveryOtherTextAsItIs) {
  for (const char* id : {"shared", "4711", "Root", "", "a/b", "NSFileProviderTrashContainerItemIdentifier"}) {
    EXPECT_EQ(identifierFor(id), ItemIdentifier{id});
    EXPECT_EQ(serverIDFor({id}), id);
  }
}

}  // namespace
}  // namespace vondle
