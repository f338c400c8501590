#include "storage/thumbnailer.h"

#include <deque>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/storage_rig.h"

namespace vondle::storage {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* JPEG = "\xff\xd8\xff a preview";

// Answers when the test says so, and with none what is left at its end.
class HeldRenderer final : public PreviewRenderer {
 public:
  struct Log {
    std::deque<std::string> asked;
    std::deque<PreviewCompletion> waiting;
  };
  explicit HeldRenderer(Log& log) : log_(log) {}
  ~HeldRenderer() override {
    while (!log_.waiting.empty()) answer(log_, std::nullopt);
  }

  static void answer(Log& log, std::optional<std::string> jpeg) {
    auto completion = std::move(log.waiting.front());
    log.waiting.pop_front();
    std::move(completion)(std::move(jpeg));
  }

  void picture(std::string path, std::string extension, int maxPixels, double, PreviewCompletion completion) override {
    EXPECT_TRUE(std::filesystem::exists(path)) << path;
    EXPECT_EQ(maxPixels, 400);
    log_.asked.push_back("picture " + extension);
    log_.waiting.push_back(std::move(completion));
  }
  void video(std::string path, double maxWidth, double, double, PreviewCompletion completion) override {
    EXPECT_TRUE(std::filesystem::exists(path)) << path;
    EXPECT_EQ(maxWidth, 960);
    log_.asked.emplace_back("video");
    log_.waiting.push_back(std::move(completion));
  }

 private:
  Log& log_;
};

class ThumbnailerTest : public testing::Test {
 protected:
  ThumbnailerTest() { restart(); }

  void restart() {
    rig_.start(std::make_unique<HeldRenderer>(renderer_));
    renderer_.asked.clear();
  }
  void answer(std::optional<std::string> jpeg) { HeldRenderer::answer(renderer_, std::move(jpeg)); }

  struct Urls {
    std::vector<std::string> ready;  // ids
    std::vector<std::string> pending;
    std::string url;  // the first
  };
  Urls ask(const std::vector<std::string>& ids) {
    json::Array list;
    for (const auto& id : ids) list.emplace_back(id);
    const auto reply = rig_.post("thumb-urls", {{"ids", list}});
    EXPECT_EQ(reply.status, 200);
    Urls urls;
    for (const auto& entry : *json::object(reply.body, "urls")) {
      if (urls.url.empty()) urls.url = entry.value().as_string();
      urls.ready.emplace_back(entry.key());
    }
    for (const auto& id : *json::list(reply.body, "pending")) urls.pending.emplace_back(id.as_string());
    return urls;
  }
  std::string idOf(const std::string& name) { return rig_.makeFile(name, "bytes of " + name).text("id"); }

  HeldRenderer::Log renderer_;
  StorageRig rig_;
};

TEST_F(ThumbnailerTest, APreviewIsMadeWhenItIsAskedForAndPendingUntilItIsThere) {
  const auto file = rig_.makeFile("photo.JPG", "a photo");
  EXPECT_TRUE(file.flag("has_thumb")) << "one is to be expected";
  EXPECT_EQ(file.text("thumb_url"), "(none)");
  EXPECT_THAT(renderer_.asked, IsEmpty());
  const auto id = file.text("id");
  EXPECT_THAT(ask({id}).pending, ElementsAre(id));
  EXPECT_THAT(renderer_.asked, ElementsAre("picture jpg"));
  EXPECT_THAT(ask({id}).pending, ElementsAre(id));
  EXPECT_THAT(renderer_.asked, ElementsAre("picture jpg")) << "once";

  answer(JPEG);
  const auto urls = ask({id});
  EXPECT_THAT(urls.ready, ElementsAre(id));
  EXPECT_THAT(urls.pending, IsEmpty());
  EXPECT_EQ(rig_.download(urls.url), JPEG);
  EXPECT_EQ(rig_.download(rig_.at("photo.JPG").text("thumb_url")), JPEG);
  EXPECT_EQ(renderer_.asked.size(), 1U);
}

TEST_F(ThumbnailerTest, VideosAreAskedForAsVideosAndOtherFilesNotAtAll) {
  const auto video = idOf("clip.MOV");
  const auto text = idOf("letter.txt");
  const auto raw = idOf("photo.nef");
  const auto empty = rig_.makeFile("empty.jpg", "").text("id");
  const auto folder = rig_.makeFolder("d.jpg").text("id");
  const auto urls = ask({video, text, raw, empty, folder, "root", "shared", "999", "no id"});
  EXPECT_THAT(urls.pending, ElementsAre(video));
  EXPECT_THAT(urls.ready, IsEmpty());
  EXPECT_THAT(renderer_.asked, ElementsAre("video"));
  EXPECT_FALSE(rig_.item(text).flag("has_thumb"));
  EXPECT_FALSE(rig_.item(raw).flag("has_thumb"));
}

TEST_F(ThumbnailerTest, WhatCannotBeShownHasNoneAndIsNotTriedAgain) {
  const auto id = idOf("broken.png");
  ask({id});
  const auto head = rig_.head();
  answer(std::nullopt);
  const auto urls = ask({id});
  EXPECT_THAT(urls.pending, IsEmpty());
  EXPECT_THAT(urls.ready, IsEmpty());
  EXPECT_FALSE(rig_.item(id).flag("has_thumb"));
  EXPECT_THAT(rig_.changesSince(head), ElementsAre(id)) << "clients hear that there is none after all";
  restart();
  EXPECT_THAT(ask({id}).pending, IsEmpty());
  EXPECT_THAT(renderer_.asked, IsEmpty());
}

TEST_F(ThumbnailerTest, NewContentsAreTriedAnew) {
  const auto file = rig_.makeFile("photo.png", "broken");
  ask({file.text("id")});
  answer(std::nullopt);
  const auto place = rig_.post("content-url", {{"id", file.text("id")}, {"base_version", 1}});
  rig_.put(place.text("upload_url"), "mended");
  EXPECT_TRUE(rig_.post("content-commit", {{"id", file.text("id")}, {"base_version", 1}, {"key", place.text("key")}})
                  .flag("has_thumb"));
  EXPECT_THAT(ask({file.text("id")}).pending, ElementsAre(file.text("id")));
}

TEST_F(ThumbnailerTest, TwoAreMadeAtATimeInTheOrderOfAsking) {
  const std::vector<std::string> ids = {idOf("1.gif"), idOf("2.png"), idOf("3.webp"), idOf("4.mp4")};
  EXPECT_EQ(ask(ids).pending.size(), 4U);
  EXPECT_THAT(renderer_.asked, ElementsAre("picture gif", "picture png"));
  answer(JPEG);
  EXPECT_THAT(renderer_.asked, ElementsAre("picture gif", "picture png", "picture webp"));
  answer(std::nullopt);
  EXPECT_EQ(renderer_.asked.size(), 4U);
  EXPECT_THAT(ask(ids).pending, ElementsAre(ids[2], ids[3]));
  answer(JPEG);
  answer(JPEG);
  EXPECT_THAT(ask(ids).ready, ElementsAre(ids[0], ids[2], ids[3]));
}

TEST_F(ThumbnailerTest, AClientsPreviewGoesBeforeOneOfItsOwn) {
  const auto place = rig_.target("", "photo.jpg", 1);
  rig_.put(place.text("upload_url"), "x");
  const auto id = rig_.at("photo.jpg").text("id");
  EXPECT_THAT(ask({id}).pending, ElementsAre(id));
  const std::string theirs = std::string(JPEG) + " of the client";
  EXPECT_TRUE(rig_.put(place.text("thumb_upload_url"), theirs, "image/jpeg"));
  rig_.post("notify-upload", {{"keys", {place.text("key")}}, {"thumbs", {place.text("key")}}});
  answer(JPEG);
  EXPECT_EQ(rig_.download(ask({id}).url), theirs);
}

TEST_F(ThumbnailerTest, APreviewGoesWithItsContents) {
  const auto file = rig_.makeFile("photo.jpg", "x");
  ask({file.text("id")});
  answer(JPEG);
  EXPECT_EQ(rig_.storedFiles(), 2U);
  rig_.post("delete-files", {{"keys", {file.text("key")}}});
  EXPECT_THAT(ask({file.text("id")}).ready, ElementsAre(file.text("id"))) << "trash is shown as well";
  rig_.post("purge", {{"id", file.text("id")}});
  EXPECT_EQ(rig_.storedFiles(), 0U);
}

TEST_F(ThumbnailerTest, APreviewThatComesAfterItsContentsWentIsDropped) {
  const auto purged = rig_.makeFile("purged.jpg", "x");
  const auto edited = rig_.makeFile("edited.jpg", "x");
  ask({purged.text("id"), edited.text("id")});
  rig_.post("delete-files", {{"keys", {purged.text("key")}}});
  rig_.post("purge", {{"id", purged.text("id")}});
  const auto place = rig_.post("content-url", {{"id", edited.text("id")}, {"base_version", 1}});
  rig_.put(place.text("upload_url"), "y");
  rig_.post("content-commit", {{"id", edited.text("id")}, {"base_version", 1}, {"key", place.text("key")}});
  answer(JPEG);
  answer(JPEG);
  EXPECT_EQ(rig_.storedFiles(), 1U);
  EXPECT_THAT(ask({edited.text("id")}).pending, ElementsAre(edited.text("id"))) << "of the new contents";
}

TEST_F(ThumbnailerTest, WhatWasNotMadeBeforeTheEndIsMadeWhenAskedForAgain) {
  const std::vector<std::string> ids = {idOf("1.jpg"), idOf("2.jpg"), idOf("3.jpg")};
  ask(ids);
  EXPECT_EQ(renderer_.asked.size(), 2U);
  restart();
  EXPECT_THAT(renderer_.asked, IsEmpty());
  EXPECT_THAT(ask(ids).pending, ElementsAre(ids[0], ids[1], ids[2]));
  EXPECT_EQ(renderer_.asked.size(), 2U);
}

TEST_F(ThumbnailerTest, OnlyThoseWhoSeeAFileHaveItsPreviewMade) {
  const auto id = idOf("photo.jpg");
  rig_.as("bob");
  EXPECT_THAT(ask({id}).pending, IsEmpty());
  EXPECT_THAT(renderer_.asked, IsEmpty());
  rig_.as("ann");
  rig_.post("share", {{"id", id}, {"account", "bob"}, {"role", "read"}});
  rig_.as("bob");
  EXPECT_THAT(ask({id}).pending, ElementsAre(id));
  answer(JPEG);
  EXPECT_EQ(rig_.download(ask({id}).url), JPEG);
}

TEST_F(ThumbnailerTest, WithoutARendererNothingIsPending) {
  const auto id = idOf("photo.jpg");
  rig_.start();
  const auto urls = ask({id});
  EXPECT_THAT(urls.pending, IsEmpty());
  EXPECT_THAT(urls.ready, IsEmpty());
}

}  // namespace
}  // namespace vondle::storage
