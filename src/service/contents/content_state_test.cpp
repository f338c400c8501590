#include "service/contents/content_state.h"

#include <gtest/gtest.h>

namespace vondle {
namespace {

TEST(ContentStateTest, EveryEventInEveryStateLeadsWhereTheTableSays) {
  using State = ContentState;
  using Event = ContentEvent;
  struct Case {
    ContentState state;
    ContentEvent event;
    std::optional<ContentState> after;
  };
  const Case cases[] = {
      {State::absent, Event::wanted, State::fetching},  {State::absent, Event::arrived, std::nullopt},
      {State::absent, Event::failed, std::nullopt},     {State::absent, Event::changed, State::absent},
      {State::absent, Event::evicted, State::absent},   {State::absent, Event::edited, State::edited},
      {State::absent, Event::sent, std::nullopt},       {State::absent, Event::kept, std::nullopt},
      {State::absent, Event::saved, std::nullopt},      {State::absent, Event::abandoned, std::nullopt},
      {State::fetching, Event::wanted, std::nullopt},   {State::fetching, Event::arrived, State::clean},
      {State::fetching, Event::failed, State::absent},  {State::fetching, Event::changed, State::fetching},
      {State::fetching, Event::evicted, std::nullopt},  {State::fetching, Event::edited, State::edited},
      {State::fetching, Event::sent, std::nullopt},     {State::fetching, Event::kept, std::nullopt},
      {State::fetching, Event::saved, std::nullopt},    {State::fetching, Event::abandoned, std::nullopt},
      {State::clean, Event::wanted, std::nullopt},      {State::clean, Event::arrived, std::nullopt},
      {State::clean, Event::failed, std::nullopt},      {State::clean, Event::changed, State::absent},
      {State::clean, Event::evicted, State::absent},    {State::clean, Event::edited, State::edited},
      {State::clean, Event::sent, std::nullopt},        {State::clean, Event::kept, std::nullopt},
      {State::clean, Event::saved, std::nullopt},       {State::clean, Event::abandoned, std::nullopt},
      {State::edited, Event::wanted, std::nullopt},     {State::edited, Event::arrived, std::nullopt},
      {State::edited, Event::failed, std::nullopt},     {State::edited, Event::changed, State::edited},
      {State::edited, Event::evicted, std::nullopt},    {State::edited, Event::edited, State::edited},
      {State::edited, Event::sent, State::uploading},   {State::edited, Event::kept, std::nullopt},
      {State::edited, Event::saved, std::nullopt},      {State::edited, Event::abandoned, State::absent},
      {State::uploading, Event::wanted, std::nullopt},  {State::uploading, Event::arrived, std::nullopt},
      {State::uploading, Event::failed, std::nullopt},  {State::uploading, Event::changed, State::uploading},
      {State::uploading, Event::evicted, std::nullopt}, {State::uploading, Event::edited, State::edited},
      {State::uploading, Event::sent, std::nullopt},    {State::uploading, Event::kept, State::edited},
      {State::uploading, Event::saved, State::clean},   {State::uploading, Event::abandoned, State::absent},
  };
  for (const auto& [state, event, after] : cases)
    EXPECT_EQ(contentStateAfter(state, event), after) << static_cast<int>(state) << " " << static_cast<int>(event);
}

}  // namespace
}  // namespace vondle
