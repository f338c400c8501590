#include "service/contents/content_state.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ContentStateTest, EveryEventInEveryStateLeadsWhereTheTableSays) {
  using enum ContentState;
  using enum ContentEvent;
  struct Case {
    ContentState state;
    ContentEvent event;
    std::optional<ContentState> after;
  };
  const Case cases[] = {
      {absent, wanted, fetching},        {absent, arrived, std::nullopt}, {absent, failed, std::nullopt},
      {absent, changed, absent},         {absent, evicted, absent},       {fetching, wanted, std::nullopt},
      {fetching, arrived, clean},        {fetching, failed, absent},      {fetching, changed, fetching},
      {fetching, evicted, std::nullopt}, {clean, wanted, std::nullopt},   {clean, arrived, std::nullopt},
      {clean, failed, std::nullopt},     {clean, changed, absent},        {clean, evicted, absent},
  };
  for (const auto& [state, event, after] : cases)
    EXPECT_EQ(contentStateAfter(state, event), after) << static_cast<int>(state) << " " << static_cast<int>(event);
}

}  // namespace
}  // namespace vondle
