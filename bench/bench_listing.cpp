#include <atomic>
#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "account.h"
#include "base/json.h"
#include "measure.h"
#include "service_rig.h"
#include "testing/http_test_server.h"

// How long a folder of 100,000 files takes from the first byte of the server's reply, over a socket of this machine, to
// the last item in the replica, which is on disk by then. Held against nothing but parsing the same bytes as JSON.

namespace vondle::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int FILES = 100'000;
constexpr int ROUNDS = 5;

double secondsSince(SteadyClock::time_point start) {
  return std::chrono::duration<double>(SteadyClock::now() - start).count();
}

double listOnce(const std::string& home, const std::string& body) {
  std::atomic<SteadyClock::time_point> firstByte;
  HttpTestServer server;
  server.handle("/vondle/api/browse", [&](HttpTestExchange& exchange) {
    firstByte = SteadyClock::now();
    exchange.reply(200, body);
  });
  ServiceRig rig(home, {{"server", server.url("")}, {"api_key", "0123456789abcdef"}});
  rig.list();
  const double taken = secondsSince(firstByte.load());
  if (rig.replica().itemCount() != FILES) throw std::runtime_error("items are missing");
  return taken;
}

int run() {
  const TemporaryFolder folder;
  const std::string body = listingReply(0, FILES);
  std::vector<double> whole, parsing, ratios;
  for (int round = 0; round < ROUNDS; ++round) {
    parsing.push_back(costOf([&] {
                        if (!json::parseObject(body)) std::abort();
                      }).seconds);
    const std::string home = folder.path() + "/" + std::to_string(round);
    whole.push_back(listOnce(home, body));
    ratios.push_back(whole.back() / parsing.back());
  }
  report(fmt::format("{} files ({:.0f} MB) into the replica; reference: parsing", FILES,
                     static_cast<double>(body.size()) / 1e6),
         "<= 1 s", figure(median(parsing), "s"), figure(median(whole), "s"), fmt::format("{:.1f}", median(ratios)));
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main() {
  return vondle::bench::run();
}
