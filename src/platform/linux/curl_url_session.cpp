#include "platform/linux/curl_url_session.h"

#include <pthread.h>

#include <algorithm>
#include <cassert>
#include <csignal>
#include <new>
#include <utility>
#include <vector>

namespace vondle {
namespace {

CURLM* makeMulti() {
  static const CURLcode initialized = curl_global_init(CURL_GLOBAL_DEFAULT);
  CURLM* multi = initialized == CURLE_OK ? curl_multi_init() : nullptr;
  if (!multi) throw std::bad_alloc();
  return multi;
}

}  // namespace

CurlURLLoading::CurlURLLoading(CurlOptions options) : options_(std::move(options)) {}

std::unique_ptr<URLSession> CurlURLLoading::makeSession(URLSessionConfiguration configuration,
                                                        URLSessionDelegate& delegate) {
  return std::make_unique<CurlURLSession>(options_, configuration, delegate);
}

CurlURLSession::CurlURLSession(CurlOptions options, URLSessionConfiguration configuration, URLSessionDelegate& delegate)
    : multi_(makeMulti(), &curl_multi_cleanup),
      network_{multi_.get(), std::move(options), configuration, delegate, {}},
      commands_(std::make_shared<CurlCommandQueue>(multi_.get())) {
  // The program's signals are for its own threads; this one and those that libcurl makes inherit the mask.
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &before);
  thread_ = std::thread([this] { run(); });
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

CurlURLSession::~CurlURLSession() {
  assert(std::this_thread::get_id() != thread_.get_id() && "a session can't be ended by its own delegate");
  commands_->close();
  thread_.join();
}

std::shared_ptr<URLSessionTask> CurlURLSession::dataTask(URLRequest request) {
  return makeTask(std::move(request), {});
}

std::shared_ptr<URLSessionTask> CurlURLSession::uploadTask(URLRequest request, std::string path) {
  assert(!path.empty() && !request.body);
  return makeTask(std::move(request), std::move(path));
}

std::shared_ptr<URLSessionTask> CurlURLSession::makeTask(URLRequest request, std::string path) {
  auto task = std::make_shared<CurlTask>(network_, commands_, ++lastIdentifier_, std::move(request), std::move(path));
  commands_->add(task);
  return task;
}

void CurlURLSession::run() {
  std::vector<std::shared_ptr<CurlTask>> changed;
  while (commands_->take(changed)) {
    for (const auto& task : changed) syncTask(task);
    int running = 0;
    curl_multi_perform(multi_.get(), &running);
    readMessages();
    checkDeadlines();
    changed.clear();
    curl_multi_poll(multi_.get(), nullptr, 0, pollTimeout(), nullptr);
  }
  for (const auto& task : changed) syncTask(task);
  while (!network_.tasks.empty()) {
    const auto task = network_.tasks.begin()->second;
    task->cancel();
    task->sync();
  }
}

void CurlURLSession::syncTask(const std::shared_ptr<CurlTask>& task) {
  if (task->isCompleted()) return;
  network_.tasks.emplace(task->identifier(), task);
  task->sync();
  nextDeadline_ = std::min(nextDeadline_, task->nextDeadline());
}

void CurlURLSession::readMessages() {
  int left = 0;
  while (const CURLMsg* message = curl_multi_info_read(multi_.get(), &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    char* pointer = nullptr;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &pointer);
    auto* const task = reinterpret_cast<CurlTask*>(pointer);
    const auto alive = task->shared_from_this();
    alive->attemptEnded(message->data.result);
    nextDeadline_ = std::min(nextDeadline_, alive->nextDeadline());
  }
}

void CurlURLSession::checkDeadlines() {
  const auto now = NetworkClock::now();
  if (now < nextDeadline_) return;
  std::vector<std::shared_ptr<CurlTask>> tasks;
  for (const auto& [identifier, task] : network_.tasks) tasks.push_back(task);
  nextDeadline_ = NetworkClock::time_point::max();
  for (const auto& task : tasks) {
    task->checkDeadlines(now);
    nextDeadline_ = std::min(nextDeadline_, task->nextDeadline());
  }
}

int CurlURLSession::pollTimeout() const {
  constexpr auto LONGEST = std::chrono::hours(1);
  const auto now = NetworkClock::now();
  if (nextDeadline_ <= now) return 0;
  const auto wait = nextDeadline_ - now < LONGEST ? nextDeadline_ - now : NetworkClock::duration(LONGEST);
  return static_cast<int>(std::chrono::ceil<std::chrono::milliseconds>(wait).count());
}

}  // namespace vondle
