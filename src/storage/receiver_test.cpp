#include "storage/receiver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/captured_log.h"

namespace vondle::storage {
namespace {

using testing::ElementsAre;

// Takes "hello" and nothing else.
class Greeting final : public Receiver {
 public:
  Greeting() : Receiver("a greeting", 5) {}

 private:
  Answer<void> take(std::string_view bytes) override {
    text_ += bytes;
    if (!std::string_view("hello").starts_with(text_)) return refuse(415, "this is no greeting");
    return {};
  }
  Answer<std::string> accept() override { return "\"tag of " + text_ + "\""; }

  std::string text_;
};

TEST(ReceiverTest, AllBytesMakeTheTagAndOneLine) {
  const CapturedLog log;
  {
    Greeting greeting;
    EXPECT_TRUE(greeting.write("hel"));
    EXPECT_TRUE(greeting.write("lo"));
    EXPECT_EQ(greeting.finish(), "\"tag of hello\"");
  }
  EXPECT_THAT(log.messages(), ElementsAre("received a greeting: 5 bytes"));
}

TEST(ReceiverTest, MoreThanWasAnnouncedIsNotTaken) {
  const CapturedLog log;
  {
    Greeting greeting;
    EXPECT_EQ(greeting.write("hello, world").error().status, 400);
  }
  EXPECT_THAT(log.messages(), ElementsAre("refused a greeting: 400 the body is longer than announced"));
}

TEST(ReceiverTest, LessThanWasAnnouncedIsNotAccepted) {
  const CapturedLog log;
  {
    Greeting greeting;
    EXPECT_TRUE(greeting.write("hell"));
    EXPECT_EQ(greeting.finish().error().status, 400);
  }
  EXPECT_THAT(log.messages(), ElementsAre("refused a greeting: 400 the body is shorter than announced"));
}

TEST(ReceiverTest, WhatIsRefusedOnTheWayIsSaidOnce) {
  const CapturedLog log;
  {
    Greeting greeting;
    EXPECT_EQ(greeting.write("bye").error().status, 415);
  }
  EXPECT_THAT(log.messages(), ElementsAre("refused a greeting: 415 this is no greeting"));
}

TEST(ReceiverTest, ABodyThatBreaksOffIsSaid) {
  const CapturedLog log;
  {
    EXPECT_TRUE(Greeting().write("hel"));
  }
  EXPECT_THAT(log.messages(), ElementsAre("a greeting broke off after 3 of 5 bytes"));
}

}  // namespace
}  // namespace vondle::storage
