#include "service/edits/temporary_names.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(TemporaryNames, LockAndSwapFilesStayForAsLongAsTheyAreNamedSo) {
  const TemporaryNames names;
  for (const auto* name : {".~lock.letter.odt#", ".notes.txt.swp", "notes.swx", ".a.swo", ".goutputstream-4X2Y1Z",
                           "~$letter.docx", "~$"}) {
    EXPECT_EQ(names.stay(name), Duration::max()) << name;
  }
}

TEST(TemporaryNames, FilesThatAreAboutToBeRenamedStayAMinute) {
  const TemporaryNames names;
  for (const auto* name : {"lu12345.tmp", ".tmp", "a.b.tmp"}) EXPECT_EQ(names.stay(name), seconds(60)) << name;
}

TEST(TemporaryNames, AllOthersGo) {
  const TemporaryNames names;
  for (const auto* name : {"letter.odt", "swp", "a.swp.txt", "tmp", "a.tmp2", "lock.a#", "goutputstream-1", "$~a", "~a",
                           "a.SWP", "", ".~lock.a"}) {
    EXPECT_EQ(names.stay(name), std::nullopt) << name;
  }
}

TEST(TemporaryNames, OnesOwnPatternsReplaceThoseForEver) {
  const TemporaryNames names({"*.part", "draft-?"});
  EXPECT_EQ(names.stay("film.part"), Duration::max());
  EXPECT_EQ(names.stay("draft-1"), Duration::max());
  EXPECT_EQ(names.stay("draft-12"), std::nullopt);
  EXPECT_EQ(names.stay("a.swp"), std::nullopt);
  EXPECT_EQ(names.stay("a.tmp"), seconds(60));
}

}  // namespace
}  // namespace vondle
