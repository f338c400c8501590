#include "items/listing_gate.h"

#include <atomic>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "testing/virtual_scheduler.h"

namespace vondle {
namespace {

using testing::ElementsAre;

struct ListingGateTest : testing::Test {
  VirtualScheduler scheduler;
  ListingGate gate{scheduler.global()};
  std::vector<std::string> started;
  std::map<std::string, ListingGate::Done> running;

  void run(const std::string& name, bool urgent = false) {
    gate.run(urgent, [this, name](ListingGate::Done done) {
      started.push_back(name);
      running.emplace(name, std::move(done));
    });
  }
  void finish(const std::string& name) {
    auto done = std::move(running.at(name));
    running.erase(name);
    std::move(done)();
    scheduler.runUntilIdle();
  }
  void finishAll() {
    while (!running.empty()) finish(running.begin()->first);
  }
};

TEST_F(ListingGateTest, RunsFourJobsAtOnceOnTheCallersThread) {
  for (const char* name : {"1", "2", "3", "4", "5"}) run(name);
  EXPECT_THAT(started, ElementsAre("1", "2", "3", "4"));
  finishAll();
}

TEST_F(ListingGateTest, PassesAFreeSlotStraightToTheNextJob) {
  for (const char* name : {"1", "2", "3", "4", "5"}) run(name);
  auto done = std::move(running.at("2"));
  running.erase("2");
  std::move(done)();
  run("late");  // the slot is taken, although its new owner has not begun
  scheduler.runUntilIdle();
  EXPECT_THAT(started, ElementsAre("1", "2", "3", "4", "5"));
  EXPECT_EQ(running.size(), 4u);
  finishAll();
  EXPECT_THAT(started, ElementsAre("1", "2", "3", "4", "5", "late"));
}

TEST_F(ListingGateTest, RunsUrgentJobsNewestFirstBeforeTheOthersOldestFirst) {
  for (const char* name : {"1", "2", "3", "4"}) run(name);
  run("C");
  run("A", true);
  run("D");
  run("B", true);
  for (const char* name : {"1", "2", "3", "4"}) finish(name);
  EXPECT_THAT(started, ElementsAre("1", "2", "3", "4", "B", "A", "C", "D"));
  finishAll();
}

TEST_F(ListingGateTest, GivesSlotsBack) {
  for (int round = 0; round < 3; ++round) {
    for (const char* name : {"1", "2", "3", "4"}) run(name);
    EXPECT_EQ(running.size(), 4u);
    finishAll();
  }
}

TEST_F(ListingGateTest, TakesAnyLimit) {
  ListingGate narrow(scheduler.global(), 1);
  std::vector<ListingGate::Done> dones;
  for (int i = 0; i < 2; ++i) narrow.run(false, [&](ListingGate::Done done) { dones.push_back(std::move(done)); });
  EXPECT_EQ(dones.size(), 1u);
  std::move(dones[0])();
  scheduler.runUntilIdle();
  ASSERT_EQ(dones.size(), 2u);
  std::move(dones[1])();
}

TEST_F(ListingGateTest, NeedsNoDeepStackForManyJobsThatEndAtOnce) {
  for (const char* name : {"1", "2", "3", "4"}) run(name);
  int count = 0;
  for (int i = 0; i < 200'000; ++i)
    gate.run(false, [&](ListingGate::Done done) {
      ++count;
      std::move(done)();
    });
  finish("1");
  EXPECT_EQ(count, 200'000);
  finishAll();
}

// Runs tasks where they are posted.
class InlineQueue final : public Queue {
 public:
  void post(Task task) override { task(); }
  TimerID after(Duration, Task task) override {
    task();
    return 0;
  }
  bool cancel(TimerID) override { return false; }
};

TEST(ListingGate, NeverRunsMoreThanItsLimitWhenManyThreadsCall) {
  InlineQueue queue;
  ListingGate gate(queue);
  std::atomic<int> running = 0;
  std::atomic<int> most = 0;
  std::atomic<int> finished = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i)
        gate.run(t % 2 == 0, [&](ListingGate::Done done) {
          const int now = ++running;
          for (int seen = most; seen < now && !most.compare_exchange_weak(seen, now);) continue;
          --running;
          ++finished;
          std::move(done)();
        });
    });
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(finished, 8 * 500);
  EXPECT_LE(most, ListingGate::LIMIT);
}

}  // namespace
}  // namespace vondle
