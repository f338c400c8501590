#include "service/edits/send_plan.h"

#include <algorithm>
#include <map>
#include <string>
#include <utility>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace vondle {
namespace {

const std::string ROOT = ROOT_CONTAINER.text;
const std::string LOCAL{LOCAL_IDENTIFIER_PREFIX};
constexpr Timestamp NOW{1000};

Place at(const std::string& folder, const std::string& name) {
  return {{folder}, name};
}

// Edits are numbered from 1 in the order in which they are added; the tests name them so.
class Queue {
 public:
  Edit& add(std::string item, std::uint32_t fields, Place place, std::optional<Place> serverPlace,
            bool isFolder = false) {
    QueuedEdit queued;
    queued.edit.id = static_cast<EditID>(edits_.size()) + 1;
    queued.edit.item = {std::move(item)};
    queued.edit.fields = fields;
    queued.edit.place = std::move(place);
    queued.edit.serverPlace = std::move(serverPlace);
    queued.edit.isFolder = isFolder;
    edits_.push_back(std::move(queued));
    return edits_.back().edit;
  }
  Edit& createFile(const std::string& item, Place place) {
    return add(LOCAL + item, EDIT_CREATED, std::move(place), {});
  }
  Edit& createFolder(const std::string& item, Place place) {
    return add(LOCAL + item, EDIT_CREATED, std::move(place), {}, true);
  }
  Edit& moveFile(std::string item, Place from, Place to) {
    return add(std::move(item), EDIT_PLACED, std::move(to), std::move(from));
  }
  Edit& moveFolder(std::string item, Place from, Place to) {
    return add(std::move(item), EDIT_PLACED, std::move(to), std::move(from), true);
  }
  Edit& removeFile(std::string item, const Place& place) { return add(std::move(item), EDIT_DELETED, place, place); }
  Edit& removeFolder(std::string item, const Place& place) {
    return add(std::move(item), EDIT_DELETED, place, place, true);
  }
  Edit& write(std::string item, const Place& place) { return add(std::move(item), EDIT_CONTENTS, place, place); }

  void setTime(EditID id, SendState state, std::optional<Timestamp> until = Timestamp{2000}) {
    at(id).time = {state, until};
  }
  void send(EditID id) {
    at(id).isSending = true;
    at(id).step = nextStep(at(id).edit);
    if (at(id).step != SendStep::remove && at(id).step != SendStep::contents) at(id).target = at(id).edit.place;
  }
  void finish(EditID id) {
    std::erase_if(edits_, [id](const auto& each) { return each.edit.id == id; });
  }
  QueuedEdit& at(EditID id) {
    return *std::ranges::find_if(edits_, [id](const auto& each) { return each.edit.id == id; });
  }
  // Where the user sees the folder.
  void put(const std::string& folder, std::string parent) { parents_[folder] = std::move(parent); }

  [[nodiscard]] SendPlan plan(std::size_t capacity = 100) const {
    return planSending(
        edits_,
        [this](const ItemIdentifier& item) -> std::optional<ItemIdentifier> {
          const auto found = parents_.find(item.text);
          if (found == parents_.end()) return std::nullopt;
          return ItemIdentifier{found->second};
        },
        capacity);
  }
  // "2 5a": those that begin, with an a when they go aside.
  [[nodiscard]] std::string starts(std::size_t capacity = 100) const {
    const auto made = plan(capacity);
    std::string text;
    for (const auto index : made.starts) {
      if (!text.empty()) text += ' ';
      text += fmt::format("{}{}", edits_[index].edit.id, made.decisions[index].isAside ? "a" : "");
    }
    return text;
  }
  [[nodiscard]] SendDecision decision(EditID id) const {
    const auto made = plan();
    for (std::size_t i = 0; i < edits_.size(); ++i) {
      if (edits_[i].edit.id == id) return made.decisions[i];
    }
    return {};
  }

 private:
  std::vector<QueuedEdit> edits_;
  std::map<std::string, std::string> parents_;
};

TEST(SendPlan, AnEditIsSentStepByStep) {
  Edit edit;
  const std::pair<std::uint32_t, SendStep> CASES[] = {{EDIT_CREATED, SendStep::create},
                                                      {EDIT_CREATED | EDIT_CONTENTS, SendStep::create},
                                                      {EDIT_CONTENTS, SendStep::contents},
                                                      {EDIT_CONTENTS | EDIT_PLACED, SendStep::contents},
                                                      {EDIT_PLACED, SendStep::place},
                                                      {EDIT_DELETED, SendStep::remove},
                                                      {EDIT_TRASHED, SendStep::remove},
                                                      {EDIT_TRASHED | EDIT_CREATED, SendStep::create},
                                                      {EDIT_TRASHED | EDIT_CONTENTS | EDIT_PLACED, SendStep::contents},
                                                      {EDIT_TRASHED | EDIT_PLACED, SendStep::place}};
  for (const auto& [fields, step] : CASES) {
    edit.fields = fields;
    EXPECT_EQ(nextStep(edit), step) << fields;
  }
}

TEST(SendPlan, AFolderIsTrashedAfterAllThatIsToBeSentBelowIt) {
  Queue queue;
  queue.put("e", "d");
  queue.put("elsewhere", ROOT);
  queue.add("d", EDIT_TRASHED, at(ROOT, "d"), at(ROOT, "d"), true);
  queue.createFile("new", at("e", "new"));
  queue.moveFile("1", at("e", "out"), at("elsewhere", "out"));
  queue.moveFile("2", at("elsewhere", "in"), at("d", "in"));
  queue.add("3", EDIT_TRASHED, at("e", "gone"), at("e", "gone"));
  queue.write("4", at("hidden", "below something that was trashed"));
  queue.write("5", at("elsewhere", "other"));
  EXPECT_EQ(queue.starts(), "2 3 4 5 6 7");
  for (const EditID below : {2, 3, 4, 5, 6}) {
    EXPECT_EQ(queue.decision(1).state, SendState::waitingForOthers) << below;
    queue.finish(below);
  }
  EXPECT_EQ(queue.decision(1).state, SendState::ready);
}

TEST(SendPlan, TrashedFoldersOfWhichNothingIsKnownDoNotWaitForOneAnotherForEver) {
  Queue queue;
  queue.add("1", EDIT_TRASHED, at("hidden", "a"), at("hidden", "a"), true);
  queue.add("2", EDIT_TRASHED, at("hidden", "b"), at("hidden", "b"), true);
  queue.add("3", EDIT_TRASHED, at(ROOT, "top"), at(ROOT, "top"), true);
  EXPECT_EQ(queue.starts(), "1");
  queue.finish(1);
  EXPECT_EQ(queue.starts(), "2");
  queue.finish(2);
  EXPECT_EQ(queue.starts(), "3");
}

TEST(SendPlan, WhatIsNewWaitsForWhatWasTrashedFromItsPlace) {
  Queue queue;
  queue.add("1", EDIT_TRASHED, at(ROOT, "a"), at(ROOT, "a"));
  queue.createFile("a", at(ROOT, "a"));
  queue.add(LOCAL + "b", EDIT_TRASHED | EDIT_CREATED, at(ROOT, "b"), {});
  queue.add(LOCAL + "c", EDIT_TRASHED | EDIT_CREATED, at(ROOT, "b"), {});
  queue.createFile("d", at(ROOT, "b"));
  EXPECT_EQ(queue.starts(), "1 3");
}

TEST(SendPlan, EditsThatHaveNothingToDoWithOneAnotherBeginTogetherInTheirOrder) {
  Queue queue;
  queue.createFile("a", at(ROOT, "a"));
  queue.write("1", at("d", "b"));
  queue.moveFile("2", at("d", "c"), at(ROOT, "c"));
  queue.removeFile("3", at(ROOT, "e"));
  EXPECT_EQ(queue.starts(), "1 2 3 4");
  EXPECT_EQ(queue.starts(2), "1 2");
}

TEST(SendPlan, WhatIsInANewFolderWaitsForTheFolder) {
  Queue queue;
  queue.createFolder("a", at(ROOT, "a"));
  queue.createFolder("b", at(LOCAL + "a", "b"));
  queue.createFile("c", at(LOCAL + "b", "c"));
  queue.moveFile("7", at(ROOT, "x"), at(LOCAL + "a", "x"));
  EXPECT_EQ(queue.starts(), "1");
  EXPECT_EQ(queue.decision(2).state, SendState::waitingForOthers);
  EXPECT_EQ(queue.decision(2).waitsFor, 1);
  EXPECT_EQ(queue.decision(3).waitsFor, 2);
  EXPECT_EQ(queue.decision(4).waitsFor, 1);
}

TEST(SendPlan, WhatIsInANewFolderThatNothingIsKnownOfWaits) {
  Queue queue;
  queue.createFile("c", at(LOCAL + "gone", "c"));
  EXPECT_EQ(queue.starts(), "");
  EXPECT_EQ(queue.decision(1).state, SendState::waitingForOthers);
  EXPECT_EQ(queue.decision(1).waitsFor, 0);
}

TEST(SendPlan, NewContentsWaitForNoPlace) {
  Queue queue;
  queue.createFolder("a", at(ROOT, "a"));
  queue.add("7", EDIT_CONTENTS | EDIT_PLACED, at(LOCAL + "a", "x"), at(ROOT, "x"));
  EXPECT_EQ(queue.starts(), "1 2");
  EXPECT_EQ(queue.decision(2).step, SendStep::contents);
}

TEST(SendPlan, ANameWaitsForTheItemThatStillHasItOnTheServer) {
  Queue queue;
  queue.moveFile("1", at(ROOT, "a"), at(ROOT, "b"));
  queue.createFile("n", at(ROOT, "a"));
  queue.removeFile("2", at(ROOT, "c"));
  queue.moveFile("3", at(ROOT, "d"), at(ROOT, "c"));
  EXPECT_EQ(queue.starts(), "1 3");
  EXPECT_EQ(queue.decision(2).waitsFor, 1);
  EXPECT_EQ(queue.decision(4).waitsFor, 3);
  queue.send(1);
  EXPECT_EQ(queue.decision(2).state, SendState::waitingForOthers);
}

TEST(SendPlan, ANameWaitsForTheItemThatMayHaveArrivedThere) {
  for (const auto fields : {EDIT_CREATED, EDIT_DELETED}) {
    Queue queue;
    auto& former = queue.createFile("former", at(ROOT, fields == EDIT_CREATED ? "new name" : "name"));
    former.fields = fields;
    former.attempt = Attempt{at(ROOT, "name"), 7, 1};
    queue.createFile("a", at(ROOT, "name"));
    EXPECT_EQ(queue.starts(), "1") << fields;
    EXPECT_EQ(queue.decision(2).waitsFor, 1) << fields;
  }
}

TEST(SendPlan, AFolderIsDeletedAfterWhatMayHaveArrivedInIt) {
  Queue queue;
  auto& gone = queue.createFile("gone", at("f", "name"));
  gone.fields = EDIT_DELETED;
  gone.attempt = Attempt{at("f", "name"), 7, 1};
  queue.removeFolder("f", at(ROOT, "f"));
  EXPECT_EQ(queue.starts(), "1");
  EXPECT_EQ(queue.decision(2).waitsFor, 1);
}

TEST(SendPlan, TheSameNameInAnotherFolderIsAnother) {
  Queue queue;
  queue.moveFile("1", at(ROOT, "a"), at(ROOT, "b"));
  queue.createFile("n", at("d", "a"));
  EXPECT_EQ(queue.starts(), "1 2");
}

TEST(SendPlan, ANameWaitsForTheItemThatIsOnItsWayToIt) {
  Queue queue;
  queue.moveFile("1", at(ROOT, "a"), at(ROOT, "b"));
  queue.send(1);
  queue.at(1).edit.place = at(ROOT, "c");  // moved on meanwhile
  queue.createFile("n", at(ROOT, "b"));
  EXPECT_EQ(queue.starts(), "");
  EXPECT_EQ(queue.decision(2).waitsFor, 1);
}

TEST(SendPlan, TwoThatSwapTheirNamesAreParted) {
  Queue queue;
  queue.moveFile("1", at(ROOT, "a"), at(ROOT, "b"));
  queue.moveFile("2", at(ROOT, "b"), at(ROOT, "a"));
  EXPECT_EQ(queue.starts(), "1a");
  queue.send(1);
  queue.at(1).target = at(ROOT, asideName(queue.at(1).edit));
  EXPECT_EQ(queue.starts(), "") << "one is enough";
  queue.at(1).isSending = false;
  queue.at(1).edit.serverPlace = at(ROOT, asideName(queue.at(1).edit));
  EXPECT_EQ(queue.starts(), "2");
  queue.finish(2);
  EXPECT_EQ(queue.starts(), "1");
}

TEST(SendPlan, ALongRingIsPartedOnceAndAChainNever) {
  Queue queue;
  constexpr int COUNT = 5000;
  for (int i = 0; i < COUNT; ++i)
    queue.moveFile(std::to_string(i), at(ROOT, std::to_string(i)), at(ROOT, std::to_string((i + 1) % COUNT)));
  EXPECT_EQ(queue.starts(), "1a");
  queue.finish(1);
  EXPECT_EQ(queue.starts(), std::to_string(COUNT)) << "the last one's name has become free";
}

TEST(SendPlan, ARingIsPartedByOneWhoseTimeHasCome) {
  Queue queue;
  queue.moveFile("1", at(ROOT, "a"), at(ROOT, "b"));
  queue.moveFile("2", at(ROOT, "b"), at(ROOT, "a"));
  queue.setTime(1, SendState::waitingToRetry);
  EXPECT_EQ(queue.starts(), "2a");
  queue.setTime(2, SendState::settling);
  EXPECT_EQ(queue.starts(), "");
}

TEST(SendPlan, AFolderWhoseContentsMovedIntoItsSuccessorIsReplaced) {
  // mkdir new; mv d/x new; rmdir d; mv new d
  Queue queue;
  queue.createFolder("new", at(ROOT, "d"));
  queue.moveFile("x", at("d", "x"), at(LOCAL + "new", "x"));
  queue.removeFolder("d", at(ROOT, "d"));
  EXPECT_EQ(queue.starts(), "1a");
}

TEST(SendPlan, AFileThatTakesTheNameOfItsFolderGoesAside) {
  // mv d/x y; rmdir d; mv y d
  Queue queue;
  queue.moveFile("x", at("d", "x"), at(ROOT, "d"));
  queue.removeFolder("d", at(ROOT, "d"));
  EXPECT_EQ(queue.starts(), "1a");
}

TEST(SendPlan, AFolderThatBecomesTheParentOfItsParentMovesFirst) {
  // a/b becomes b/a
  Queue queue;
  queue.put("b", ROOT);
  queue.put("a", "b");
  queue.moveFolder("a", at(ROOT, "a"), at("b", "a"));
  queue.moveFolder("b", at("a", "b"), at(ROOT, "b"));
  EXPECT_EQ(queue.starts(), "2");
  EXPECT_EQ(queue.decision(1).waitsFor, 2);
}

TEST(SendPlan, AFolderThatTakesTheNameOfItsParentWhichGoesIntoItGoesAside) {
  // a/b becomes a/b with the two swapped
  Queue queue;
  queue.put("b", ROOT);
  queue.put("a", "b");
  queue.moveFolder("a", at(ROOT, "a"), at("b", "b"));
  queue.moveFolder("b", at("a", "b"), at(ROOT, "a"));
  EXPECT_EQ(queue.starts(), "2a");
}

TEST(SendPlan, AFolderIsDeletedAfterWhatTheServerHasInIt) {
  Queue queue;
  queue.removeFile("1", at("d", "a"));
  queue.moveFile("2", at("d", "b"), at(ROOT, "b"));
  queue.removeFolder("e", at("d", "e"));
  queue.removeFolder("d", at(ROOT, "d"));
  EXPECT_EQ(queue.starts(), "1 2 3");
  EXPECT_EQ(queue.decision(4).state, SendState::waitingForOthers);
  for (const EditID id : {1, 2, 3}) queue.finish(id);
  EXPECT_EQ(queue.starts(), "4");
}

TEST(SendPlan, NothingGoesOnBelowAFolderThatIsMoved) {
  Queue queue;
  queue.put("d", ROOT);
  queue.put("e", "d");
  queue.moveFolder("d", at(ROOT, "c"), at(ROOT, "d"));
  queue.createFile("1", at("e", "x"));
  queue.write("2", at("d", "y"));
  queue.moveFile("3", at("e", "z"), at(ROOT, "z"));
  queue.createFile("4", at(ROOT, "w"));
  EXPECT_EQ(queue.starts(), "1 5");
  queue.send(1);
  EXPECT_EQ(queue.starts(), "5");
  queue.finish(1);
  EXPECT_EQ(queue.starts(), "2 3 4 5");
}

TEST(SendPlan, AFolderMovesWhenNothingGoesOnBelowIt) {
  Queue queue;
  queue.put("d", ROOT);
  queue.put("e", "d");
  queue.createFile("1", at("e", "x"));
  queue.moveFolder("d", at(ROOT, "c"), at(ROOT, "d"));
  queue.createFile("2", at("e", "y"));
  EXPECT_EQ(queue.starts(), "1");
  queue.send(1);
  EXPECT_EQ(queue.starts(), "") << "later ones do not pass it by";
  queue.finish(1);
  EXPECT_EQ(queue.starts(), "2");
}

TEST(SendPlan, AFolderIsWhereTheServerHasItUntilItHasMoved) {
  Queue queue;
  queue.put("d", ROOT);
  queue.put("e", ROOT);  // moved out of d, which the server does not know yet
  queue.moveFolder("d", at(ROOT, "c"), at(ROOT, "d"));
  queue.moveFolder("e", at("d", "e"), at(ROOT, "e"));
  queue.setTime(2, SendState::waitingToRetry);
  queue.createFile("1", at("e", "x"));
  queue.send(1);
  EXPECT_EQ(queue.starts(), "");
}

TEST(SendPlan, AFolderIsNotDeletedBesideAMoveAboveIt) {
  Queue queue;
  queue.put("d", ROOT);
  queue.moveFolder("d", at(ROOT, "c"), at(ROOT, "d"));
  queue.removeFolder("e", at("d", "e"));
  EXPECT_EQ(queue.starts(), "1");
}

TEST(SendPlan, ARingInWhatTheServerSaysEnds) {
  Queue queue;
  queue.put("d", "e");
  queue.put("e", "d");
  queue.createFile("1", at("e", "x"));
  queue.moveFolder("f", at("e", "f"), at("d", "f"));
  EXPECT_EQ(queue.starts(), "1 2");
}

TEST(SendPlan, ThoseWhoseTimeHasNotComeSayWhen) {
  Queue queue;
  queue.createFile("1", at(ROOT, "x"));
  for (const auto state : {SendState::settling, SendState::staysHere, SendState::waitingToRetry}) {
    queue.setTime(1, state);
    EXPECT_EQ(queue.starts(), "");
    EXPECT_EQ(queue.decision(1).state, state);
    EXPECT_EQ(queue.decision(1).until, Timestamp{2000});
  }
}

TEST(SendTime, IsWhenTheItemHasBeenLeftAlone) {
  constexpr SendTime READY;
  const auto settling = [](double until) { return SendTime{SendState::settling, Timestamp{until}}; };
  const auto staying = [](std::optional<Timestamp> until) { return SendTime{SendState::staysHere, until}; };
  const auto retrying = [](double until) { return SendTime{SendState::waitingToRetry, Timestamp{until}}; };
  const struct {
    const char* what;
    std::uint32_t fields;
    double changedAt;
    std::optional<Timestamp> nextTry;
    SendTimeFacts facts;
    SendTime time;
  } CASES[] = {
      {"settled", EDIT_CONTENTS, 999, {}, {.settleTime = seconds(1)}, READY},
      {"settling", EDIT_CONTENTS, 999.5, {}, {.settleTime = seconds(1)}, settling(1000.5)},
      {"in a hurry", EDIT_CONTENTS, 999.5, {}, {}, READY},
      {"changed in the future", EDIT_CONTENTS, 5000, {}, {.settleTime = seconds(1)}, READY},
      {"busy", EDIT_CONTENTS, 900, {}, {.settleTime = seconds(1), .busyUntil = Timestamp{1020}}, settling(1020)},
      {"busy a shorter time",
       EDIT_CONTENTS,
       999.5,
       {},
       {.settleTime = seconds(1), .busyUntil = Timestamp{1000.1}},
       settling(1000.5)},
      {"no longer busy", EDIT_CONTENTS, 900, {}, {.busyUntil = Timestamp{1000}}, READY},
      {"for ever", EDIT_CREATED, 1, {}, {.stay = Duration::max()}, staying({})},
      {"for a minute", EDIT_CREATED, 950, {}, {.stay = seconds(60)}, staying(Timestamp{1010})},
      {"after the minute", EDIT_CREATED, 940, {}, {.stay = seconds(60)}, READY},
      {"of a known file", EDIT_CONTENTS, 950, {}, {.stay = seconds(60)}, READY},
      {"retrying", EDIT_PLACED, 1, Timestamp{1100}, {.isDelayed = true, .lastRetry = seconds(300)}, retrying(1100)},
      {"delays ended", EDIT_PLACED, 1, Timestamp{1100}, {.lastRetry = seconds(300)}, READY},
      {"retry due", EDIT_PLACED, 1, Timestamp{1000}, {.isDelayed = true, .lastRetry = seconds(300)}, READY},
      {"clock set back", EDIT_PLACED, 1, Timestamp{9000}, {.isDelayed = true, .lastRetry = seconds(300)}, READY},
  };
  for (auto each : CASES) {
    Edit edit;
    edit.fields = each.fields;
    edit.changedAt = {each.changedAt};
    edit.nextTry = each.nextTry;
    each.facts.now = NOW;
    EXPECT_EQ(sendTimeOf(edit, each.facts), each.time) << each.what;
  }
}

TEST(SendTime, AFolderOfATemporaryNameGoes) {
  Edit edit;
  edit.isFolder = true;
  edit.fields = EDIT_CREATED;
  edit.changedAt = {990};
  EXPECT_EQ(sendTimeOf(edit, {.now = NOW, .stay = Duration::max()}), SendTime{});
}

}  // namespace
}  // namespace vondle
