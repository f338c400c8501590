#include "storage/importer.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using testing::ElementsAre;

class ImporterTest : public testing::Test {
 protected:
  ImporterTest() {
    std::filesystem::create_directories(source_.path() + "/d/e");
    source_.write("a.txt", "hello");
    source_.write("d/empty", "");
    source_.write("d/e/deep", "deep");
  }
  ImportReport import() {
    auto store = rig_.stores().writer();
    const auto report = importFolder(*store, rig_.contents(), "ann", source_.path(), rig_.now());
    EXPECT_TRUE(report) << report.error().localizedDescription();
    return report.value_or(ImportReport());
  }

  TemporaryFolder source_;
  StorageRig rig_;
};

TEST_F(ImporterTest, TheTreeIsThereWithNamesContentsAndTimes) {
  const timespec times[] = {{1714558830, 123'456'789}, {1714558830, 123'456'789}};
  ASSERT_EQ(utimensat(AT_FDCWD, (source_.path() + "/a.txt").c_str(), times, 0), 0);
  ASSERT_EQ(utimensat(AT_FDCWD, (source_.path() + "/d").c_str(), times, 0), 0);
  const auto report = import();
  EXPECT_EQ(report.files, 3);
  EXPECT_EQ(report.folders, 2);
  EXPECT_EQ(report.bytes, 9);
  EXPECT_EQ(report.skipped + report.kept, 0);
  EXPECT_THAT(rig_.tree(), ElementsAre("d/", "d/e/", "d/e/deep", "d/empty", "a.txt"));
  EXPECT_EQ(rig_.at("a.txt").text("mtime"), "2024-05-01T10:20:30.123Z");
  EXPECT_EQ(rig_.at("d").text("mtime"), "2024-05-01T10:20:30.123Z");
  EXPECT_EQ(rig_.download(rig_.at("d/e/deep").text("download_url")), "deep");
  EXPECT_EQ(rig_.download(rig_.at("d/empty").text("download_url")), "");
  EXPECT_EQ(rig_.changesSince(0).size(), 5U);
}

TEST_F(ImporterTest, ASecondImportAddsWhatIsNewAndChangesNothingElse) {
  import();
  source_.write("a.txt", "changed");
  source_.write("d/new", "new");
  const auto report = import();
  EXPECT_EQ(report.files, 1);
  EXPECT_EQ(report.folders, 0);
  EXPECT_EQ(report.kept, 3);
  EXPECT_EQ(rig_.download(rig_.at("a.txt").text("download_url")), "hello");
  EXPECT_EQ(rig_.download(rig_.at("d/new").text("download_url")), "new");
  EXPECT_EQ(rig_.storedFiles(), 4U);
}

TEST_F(ImporterTest, WhatCannotBeTakenIsSkippedAndCounted) {
  std::filesystem::create_symlink("a.txt", source_.path() + "/link");
  ASSERT_EQ(mkfifo((source_.path() + "/pipe").c_str(), 0600), 0);
  source_.write("bad\xff", "x");
  std::filesystem::create_directory(source_.path() + "/Shared with me");
  source_.write("Shared with me/x", "x");
  rig_.makeFile("d", "a file where a folder comes");
  testing::internal::CaptureStderr();
  const auto report = import();
  const auto told = testing::internal::GetCapturedStderr();
  EXPECT_EQ(report.files, 1);
  EXPECT_THAT(rig_.tree(), ElementsAre("a.txt", "d"));
  for (const char* name : {"/link", "/pipe", "/bad", "/Shared with me", "/d"})
    EXPECT_NE(told.find(name), std::string::npos) << name;
  EXPECT_EQ(rig_.storedFiles(), 2U + 3U) << "copies that found no place wait for the garbage collection";
  rig_.api().tidy();
  EXPECT_EQ(rig_.storedFiles(), 2U);
}

TEST_F(ImporterTest, AFolderThatIsNotThereIsAnError) {
  auto store = rig_.stores().writer();
  EXPECT_FALSE(importFolder(*store, rig_.contents(), "ann", source_.path() + "/nowhere", 0));
}

TEST_F(ImporterTest, MoreThanTheQuotaIsNotTaken) {
  rig_.setQuota("ann", 8);
  auto store = rig_.stores().writer();
  EXPECT_FALSE(importFolder(*store, rig_.contents(), "ann", source_.path(), 0));
}

}  // namespace
}  // namespace vondle::storage
