#include "api/content_target.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

using testing::Optional;

std::optional<ContentTarget> parse(std::string_view text) {
  return ContentTarget::parse(json::parseObject(text).value());
}

TEST(ContentTarget, IsOneRequestToAnAddressWhenThatIsAllThereIs) {
  EXPECT_THAT(parse(R"({"key":"k","upload_url":"https://store.example/k"})"),
              Optional(ContentTarget{.uploadURL = "https://store.example/k",
                                     .key = "k",
                                     .contentType = "application/octet-stream",
                                     .uploadID = std::nullopt,
                                     .partSize = 0,
                                     .thumbUpload = std::nullopt}));
}

TEST(ContentTarget, HoldsEverythingThatTheServerSays) {
  EXPECT_THAT(parse(R"({"key":"k","upload_url":"https://store.example/a b","content_type":"text/plain",
                        "thumb_upload_url":"https://store.example/t"})"),
              Optional(ContentTarget{.uploadURL = "https://store.example/a%20b",
                                     .key = "k",
                                     .contentType = "text/plain",
                                     .uploadID = std::nullopt,
                                     .partSize = 0,
                                     .thumbUpload = "https://store.example/t"}));
}

TEST(ContentTarget, InPartsDoesNotLookAtTheAddress) {
  const ContentTarget expected{.uploadURL = std::nullopt,
                               .key = "k",
                               .contentType = "application/octet-stream",
                               .uploadID = "u1",
                               .partSize = 8'388'608,
                               .thumbUpload = std::nullopt};
  EXPECT_THAT(parse(R"({"key":"k","upload_id":"u1","part_size":8388608,"upload_url":"x"})"), Optional(expected));
  EXPECT_THAT(parse(R"({"key":"k","upload_id":"u1","part_size":8388608.9})"), Optional(expected));
}

TEST(ContentTarget, FallsBackToOneRequestWithoutBothAnUploadIDAndAPartSize) {
  for (const char* parts : {R"("upload_id":"u1","part_size":0)", R"("upload_id":"u1","part_size":-1)",
                            R"("upload_id":"u1","part_size":"8")", R"("upload_id":"u1","part_size":1e300)",
                            R"("upload_id":"u1","part_size":true)", R"("upload_id":"u1")",
                            R"("upload_id":7,"part_size":8)", R"("part_size":8)"}) {
    const auto target = parse(R"({"key":"k","upload_url":"https://store.example/k",)" + std::string(parts) + "}");
    ASSERT_TRUE(target) << parts;
    EXPECT_EQ(target->uploadURL, "https://store.example/k") << parts;
    EXPECT_EQ(target->uploadID, std::nullopt) << parts;
    EXPECT_EQ(target->partSize, 0) << parts;
    EXPECT_FALSE(parse(R"({"key":"k",)" + std::string(parts) + "}")) << parts;
  }
}

TEST(ContentTarget, TakesTheLargestPartSizeThereIs) {
  EXPECT_EQ(parse(R"({"key":"k","upload_id":"u1","part_size":4611686018427387904})")->partSize, std::int64_t{1} << 62);
}

TEST(ContentTarget, IsNoneWithoutAKeyOrAnAddress) {
  for (const char* text :
       {"{}", R"({"key":"k"})", R"({"upload_url":"https://store.example/k"})",
        R"({"upload_id":"u1","part_size":8388608,"upload_url":"https://store.example/k"})",
        R"({"key":7,"upload_url":"https://store.example/k"})", R"({"key":"k","upload_url":7})",
        R"({"key":"k","upload_url":null})", R"({"key":"k","upload_url":""})", R"({"key":"k","upload_url":"x"})",
        R"({"key":"k","upload_url":["https://store.example/k"]})"}) {
    EXPECT_FALSE(parse(text)) << text;
  }
}

TEST(ContentTarget, TakesOtherTypesOfWhatIsOptionalAsAbsent) {
  const auto target =
      parse(R"({"key":"k","upload_url":"https://store.example/k","content_type":7,"thumb_upload_url":{}})");
  ASSERT_TRUE(target);
  EXPECT_EQ(target->contentType, "application/octet-stream");
  EXPECT_EQ(target->thumbUpload, std::nullopt);
}

TEST(ContentTarget, GoesInPartsFromOneHundredMebibytes) {
  EXPECT_EQ(multipartThreshold, 100 * 1024 * 1024);
}

}  // namespace
}  // namespace vondle
