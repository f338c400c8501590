#include <cstdio>
#include <cstdlib>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "base/completion.h"

int main(int argc, char** argv) {
  vondle::setDroppedCompletionHandler([] {
    std::fputs("a completion was dropped unanswered\n", stderr);
    std::abort();
  });
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
