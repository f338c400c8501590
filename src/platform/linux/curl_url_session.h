#pragma once

#include <atomic>
#include <memory>
#include <thread>

#include "platform/linux/curl_task.h"
#include "platform/url_session.h"

namespace vondle {

// Sessions over libcurl: one network thread each, on which the delegate is called. Proxies are those of the
// environment (http_proxy, https_proxy, all_proxy, no_proxy); this machine itself is always reached directly.
class CurlURLLoading final : public URLLoading {
 public:
  explicit CurlURLLoading(CurlOptions options = {});
  std::unique_ptr<URLSession> makeSession(URLSessionConfiguration configuration, URLSessionDelegate& delegate) override;

 private:
  const CurlOptions options_;
};

class CurlURLSession final : public URLSession {
 public:
  CurlURLSession(CurlOptions options, URLSessionConfiguration configuration, URLSessionDelegate& delegate);
  ~CurlURLSession() override;

  std::shared_ptr<URLSessionTask> dataTask(URLRequest request) override;
  std::shared_ptr<URLSessionTask> uploadTask(URLRequest request, std::string path) override;

 private:
  std::shared_ptr<URLSessionTask> makeTask(URLRequest request, std::string path);
  void run();
  void syncTask(const std::shared_ptr<CurlTask>& task);
  void readMessages();
  void checkDeadlines();
  [[nodiscard]] int pollTimeout() const;

  const std::unique_ptr<CURLM, decltype(&curl_multi_cleanup)> multi_;
  CurlNetwork network_;
  const std::shared_ptr<CurlCommandQueue> commands_;
  std::atomic<URLTaskID> lastIdentifier_ = 0;
  // No deadline comes before it. Deadlines only move away from it until it is reached, or are told to syncTask.
  NetworkClock::time_point nextDeadline_ = NetworkClock::time_point::max();
  std::thread thread_;
};

}  // namespace vondle
