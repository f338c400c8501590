#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <fmt/format.h>

#include "measure.h"
#include "service_rig.h"
#include "testing/http_test_server.h"

// How long a program waits for a small file that is not here, from its first read to the contents, while ten downloads
// that nobody waits for come down as fast as the limit lets them; against the same limit and nothing else to do.

namespace vondle::bench {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr int BACKGROUND = 10;
constexpr std::size_t BACKGROUND_SIZE = std::size_t{256} << 20;
constexpr int SMALL_FILES = 60;  // of which half are read at rest
constexpr std::size_t SMALL_SIZE = 4096;
constexpr int LIMIT = 10'240;                               // kB/s
constexpr auto PAUSE = std::chrono::milliseconds(50);       // between two small files
constexpr auto SETTLING = std::chrono::milliseconds(3000);  // the first second's worth passes at once

std::string entry(int number) {
  const bool isSmall = number < SMALL_FILES;
  return fmt::format(R"("id":"file-{0}","parent_id":"root","size":{1},"key":"{0}","version":1)", number,
                     isSmall ? SMALL_SIZE : BACKGROUND_SIZE);
}

int numberAtEnd(const std::string& target, char before) {
  return std::stoi(target.substr(target.rfind(before) + 1));
}

// The account's server: small files, then those for the background.
class Account {
 public:
  Account() {
    server_.handle("/vondle/api/browse", [](HttpTestExchange& exchange) {
      std::string files;
      for (int i = 0; i < SMALL_FILES + BACKGROUND; ++i)
        files += fmt::format(R"({}{{{},"filename":"{}"}})", i == 0 ? "" : ",", entry(i), i);
      exchange.reply(200, R"({"subpath":"","role":"owner","folders":[],"files":[)" + files + "]}");
    });
    server_.handle("/vondle/api/item", [this](HttpTestExchange& exchange) {
      const int number = numberAtEnd(exchange.target, '-');
      exchange.reply(200, fmt::format(R"({{{},"name":"{}","download_url":"{}"}})", entry(number), number,
                                      server_.url("/contents/" + std::to_string(number))));
    });
    server_.handle("/contents/", [this](HttpTestExchange& exchange) {
      const bool isSmall = numberAtEnd(exchange.target, '/') < SMALL_FILES;
      exchange.reply(200, std::string_view(contents_).substr(0, isSmall ? SMALL_SIZE : BACKGROUND_SIZE));
    });
  }

  std::string url() const { return server_.url(""); }

 private:
  const std::string contents_ = std::string(BACKGROUND_SIZE, 'v');
  HttpTestServer server_;
};

class Reading {
 public:
  Reading(const std::string& home, const std::string& server)
      : rig_(home, {{"server", server}, {"api_key", "0123456789abcdef"}, {"max_download_kbps", LIMIT}}) {
    rig_.list();
  }
  // Returns when nothing runs any more.
  ~Reading() {
    rig_.contents().close({URL_ERROR_DOMAIN, URL_CANCELLED});
    while (running_ > 0 || !rig_.contents().transfers().empty()) std::this_thread::sleep_for(PAUSE);
  }
  Reading(const Reading&) = delete;
  Reading& operator=(const Reading&) = delete;

  // The milliseconds that a program waits for it.
  double read(int number) {
    const auto start = SteadyClock::now();
    std::promise<bool> here;
    rig_.contents().require(
        inode(number), {.isFileViewerRequest = true}, nullptr,
        [&](const Result<std::shared_ptr<const ContentFile>>& file) { here.set_value(file.has_value()); });
    if (!here.get_future().get()) throw std::runtime_error("a file does not come");
    return std::chrono::duration<double, std::milli>(SteadyClock::now() - start).count();
  }

  void fetchInBackground(int number) {
    ++running_;
    rig_.contents().require(inode(number), {.isSystemRequest = true}, nullptr,
                            [this](const Result<std::shared_ptr<const ContentFile>>&) { --running_; });
  }
  [[nodiscard]] int running() const { return running_; }

 private:
  Inode inode(int number) { return rig_.replica().inodeOf({fmt::format("file-{}", number)}).value(); }

  std::atomic<int> running_ = 0;
  ServiceRig rig_;
};

double medianWait(Reading& reading, int from, int to) {
  std::vector<double> waits;
  for (int number = from; number < to; ++number) {
    std::this_thread::sleep_for(PAUSE);
    waits.push_back(reading.read(number));
  }
  return median(waits);
}

int run() {
  const TemporaryFolder folder;
  const Account account;
  Reading reading(folder.path() + "/home", account.url());
  const double idle = medianWait(reading, 0, SMALL_FILES / 2);
  for (int i = 0; i < BACKGROUND; ++i) reading.fetchInBackground(SMALL_FILES + i);
  std::this_thread::sleep_for(SETTLING);
  const double busy = medianWait(reading, SMALL_FILES / 2, SMALL_FILES);
  if (reading.running() != BACKGROUND) throw std::runtime_error("the background was not there all the time");
  report(fmt::format("first byte of a 4 KiB file beside {} limited downloads", BACKGROUND), "<= 1.5",
         figure(idle, "ms"), figure(busy, "ms"), fmt::format("{:.2f}", busy / idle));
  return 0;
}

}  // namespace
}  // namespace vondle::bench

int main() {
  return vondle::bench::run();
}
