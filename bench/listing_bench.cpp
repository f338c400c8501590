#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>

#include <fmt/format.h>

#include "base/json.h"
#include "items/vondle_enumerator.h"
#include "items/vondle_item.h"
#include "testing/items_rig.h"

// How long a listing of 100,000 files takes from the reply's bytes to the items that the service gets, against nothing
// but parsing the same bytes as JSON. Claim: at most five times.

namespace vondle {
namespace {

constexpr int FILES = 100'000;
constexpr int ROUNDS = 5;
constexpr double CLAIM = 5;

std::string listing() {
  std::string body = R"({"subpath":"photos/2024","role":"owner","folders":[],"files":[)";
  for (int i = 0; i < FILES; ++i)
    body += fmt::format(R"({}{{"id":"item-{:08}","parent_id":"folder-1","filename":"IMG_{:08}.jpg","size":{},)"
                        R"("key":"accounts/1/contents/{:032x}","download_url":"https://store.example/accounts/1/)"
                        R"(contents/{:032x}?expires=1800000000&signature={:064x}","thumb_url":"https://store.example/)"
                        R"(thumbs/{:032x}","mtime":"2024-05-01T10:20:30.{:03}Z","version":3,"deleted":false,)"
                        R"("shared":false,"owner_name":"Ann Lee","has_thumb":true}})",
                        i == 0 ? "" : ",", i, i, 1000 + i, i, i, i, i, i % 1000);
  return body + "]}";
}

template <class Work>
double bestSeconds(Work work) {
  double best = 1e9;
  for (int round = 0; round < ROUNDS; ++round) {
    const auto start = std::chrono::steady_clock::now();
    work();
    best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
  }
  return best;
}

int run() {
  const std::string body = listing();
  const double parsing = bestSeconds([&] {
    if (!json::parseObject(body)) std::abort();
  });
  ItemsRig rig;
  rig.answer("browse", body);
  const double whole = bestSeconds([&] {
    const auto observer = std::make_shared<RecordingEnumerationObserver>();
    VondleEnumerator(rig.services, {"folder-1"}, true).enumerateItems(observer, "");
    rig.scheduler.runUntilIdle();
    if (observer->items.size() != FILES) std::abort();
  });
  fmt::print("{} files, {:.1f} MB: parse {:.0f} ms, listing {:.0f} ms, ratio {:.2f} (claim: at most {})\n", FILES,
             static_cast<double>(body.size()) / 1e6, parsing * 1e3, whole * 1e3, whole / parsing, CLAIM);
  return whole / parsing <= CLAIM ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace
}  // namespace vondle

int main() {
  return vondle::run();
}
