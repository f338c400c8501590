#include "provider/delete_item.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "api/api_error.h"
#include "testing/edit_rig.h"

namespace vondle {
namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

struct DeleteItemTest : testing::Test, EditRig {
  // Whether the extension has to ask the server about the item.
  bool isForgotten(const std::string& id) {
    const auto before = calls().size();
    Captured<Result<Item>> item;
    extension().itemForIdentifier({id}, {}, item.completion());
    scheduler.runUntilIdle();
    return calls().size() > before;
  }
};

TEST_F(DeleteItemTest, SendsWhatTheItemIsAddressedBy) {
  const struct {
    EditRig::File file;
    const char* endpoint;
    const char* sent;
  } cases[] = {
      {{}, "delete-files", R"(delete-files {"keys":["k7"]})"},
      {{.path = "docs/work", .isFolder = true}, "delete-folder", R"(delete-folder {"prefix":"docs/work/"})"},
      {{.trashed = true}, "purge", R"(purge {"id":"7"})"},
      {{.path = "docs/work", .trashed = true, .isFolder = true}, "purge", R"(purge {"id":"7"})"},
      {{.key = std::nullopt, .trashed = true}, "purge", R"(purge {"id":"7"})"},
  };
  for (const auto& c : cases) {
    log.clear();
    serve(c.file);
    see("7");
    take(c.endpoint);
    const auto before = writes().size();
    EXPECT_EQ(remove("7"), std::nullopt) << c.sent;
    ASSERT_EQ(writes().size(), before + 1) << c.sent;
    EXPECT_EQ(writes().back(), c.sent);
    EXPECT_THAT(log.messages(LogLevel::info), Contains("purging 7"));
    EXPECT_TRUE(isForgotten("7")) << c.sent;
  }
}

TEST_F(DeleteItemTest, AnItemThatNothingCanBeFoundOutAboutIsDeleted) {
  for (const int status : {401, 403, 404, 410, 500, 503}) {
    itemFailure = reply("", status);
    EXPECT_EQ(remove("7"), std::nullopt);
  }
  itemFailure = networkFailure();
  EXPECT_EQ(remove("7"), std::nullopt);
  EXPECT_THAT(writes(), IsEmpty());
}

TEST_F(DeleteItemTest, AFileWithoutContentsOnTheServerIsDeleted) {
  serve({.key = std::nullopt});
  EXPECT_EQ(remove("7"), std::nullopt);
  EXPECT_THAT(calls(), ElementsAre("GET item?id=7"));
}

TEST_F(DeleteItemTest, WhatTheServerNoLongerHasIsDeleted) {
  const struct {
    EditRig::File file;
    const char* endpoint;
  } cases[] = {{{}, "delete-files"}, {{.isFolder = true}, "delete-folder"}, {{.trashed = true}, "purge"}};
  for (const auto& c : cases)
    for (const int status : {404, 410}) {
      serve(c.file);
      see("7");
      refuse(c.endpoint, status);
      EXPECT_EQ(remove("7"), std::nullopt) << c.endpoint << " " << status;
      EXPECT_TRUE(isForgotten("7"));
    }
}

TEST_F(DeleteItemTest, AnyOtherRefusalReachesTheCompletionAsItIs) {
  const struct {
    EditRig::File file;
    const char* endpoint;
  } cases[] = {{{}, "delete-files"}, {{.isFolder = true}, "delete-folder"}, {{.trashed = true}, "purge"}};
  for (const auto& c : cases) {
    serve(c.file);
    see("7");
    for (const int status : {401, 403, 409, 413, 429, 500, 507, 204}) {
      refuse(c.endpoint, status);
      EXPECT_EQ(remove("7"), Error(APIError::badResponse(status))) << c.endpoint;
    }
    refuse(c.endpoint, 200, "garbage");
    EXPECT_EQ(remove("7"), Error(APIError::badResponse(200))) << c.endpoint;
    refuse(c.endpoint, networkFailure());
    EXPECT_TRUE(remove("7")->is(URL_ERROR_DOMAIN, URL_NETWORK_CONNECTION_LOST)) << c.endpoint;
    EXPECT_FALSE(isForgotten("7"));
  }
}

TEST_F(DeleteItemTest, DeletesTheItemAsTheServerHasItNow) {
  serve({});
  see("7");
  serve({.key = "k8"});
  take("delete-files");
  EXPECT_EQ(remove("7"), std::nullopt);
  EXPECT_THAT(writes(), ElementsAre(R"(delete-files {"keys":["k8"]})"));
}

TEST_F(DeleteItemTest, GoesByWhatIsKnownWhenTheServerFails) {
  serve({});
  see("7");
  itemFailure = networkFailure();
  take("delete-files");
  EXPECT_EQ(remove("7"), std::nullopt);
  EXPECT_THAT(writes(), ElementsAre(R"(delete-files {"keys":["k7"]})"));
}

}  // namespace
}  // namespace vondle
