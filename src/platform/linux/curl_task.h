#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "platform/linux/curl_command_queue.h"
#include "platform/linux/curl_easy_handle.h"
#include "platform/linux/send_chunk.h"
#include "platform/linux/upload_source.h"
#include "platform/url_session.h"

namespace vondle {

// The network's own time: it need not count while the machine sleeps, so that waking up times nothing out.
using NetworkClock = std::chrono::steady_clock;

// What a session's network thread works with; touched by it alone.
struct CurlNetwork {
  CURLM* multi;
  const CurlOptions options;
  const URLSessionConfiguration configuration;
  URLSessionDelegate& delegate;
  std::map<URLTaskID, std::shared_ptr<CurlTask>> tasks;  // that have not completed
};

// One task of a CurlURLSession. Any thread states wishes (resume, suspend, cancel): a flag and a call to the network
// thread, which makes libcurl match the flags and calls the delegate. It may take several attempts, libcurl transfers,
// one after the other: redirects are followed by hand, and a request that met a connection which the server had just
// closed is sent again once.
class CurlTask final : public URLSessionTask, public std::enable_shared_from_this<CurlTask> {
 public:
  CurlTask(CurlNetwork& network, std::shared_ptr<CurlCommandQueue> commands, URLTaskID identifier, URLRequest request,
           std::string uploadPath);
  ~CurlTask() override;

  URLTaskID identifier() const override { return identifier_; }
  const URLRequest& originalRequest() const override { return request_; }
  void resume() override;
  void suspend() override;
  void cancel() override;

  // The rest is for the network thread, outside of libcurl's callbacks.
  [[nodiscard]] bool isCompleted() const { return completed_; }
  void sync();                       // does what the wishes ask for
  void attemptEnded(CURLcode code);  // libcurl is done with the attempt
  [[nodiscard]] NetworkClock::time_point nextDeadline() const;
  void checkDeadlines(NetworkClock::time_point now);

 private:
  struct Attempt;

  void callNetwork();
  void begin();
  void startAttempt(bool onFreshConnection);
  void conclude(CURLcode code);
  void finish(std::optional<Error> error);
  void leaveMulti();

  void touch() { lastActivity_ = NetworkClock::now(); }
  void hold();
  void reportSent(std::int64_t uploaded);
  void deliverResponse();
  [[nodiscard]] bool isStaleConnection(CURLcode code) const;
  [[nodiscard]] Duration idleLimit() const;

  // Within libcurl's callbacks.
  std::size_t onHeader(std::string_view line);
  bool onHeadersComplete();
  std::size_t onBody(std::string_view bytes);
  std::size_t onRead(std::span<char> buffer);
  bool onProgress(std::int64_t down, std::int64_t up);
  bool onReadyToSend();
  void setCallbacks();

  CurlNetwork& network_;  // alive as long as the network thread, and used by it alone
  const std::shared_ptr<CurlCommandQueue> commands_;
  const URLTaskID identifier_;
  const URLRequest request_;
  const std::string uploadPath_;
  std::atomic<bool> suspended_ = true;
  std::atomic<bool> cancelled_ = false;
  std::atomic<bool> called_ = false;  // the network thread will look at the flags

  bool begun_ = false;
  bool completed_ = false;
  URLRequest current_;  // after redirects
  int redirects_ = 0;
  bool sentAgain_ = false;
  std::unique_ptr<UploadSource> source_;
  SendChunk chunk_;
  std::unique_ptr<Attempt> attempt_;
  std::optional<Error> ownError_;      // why a callback stopped the attempt
  std::optional<CURLcode> endedWith_;  // the attempt's end, kept back while suspended
  NetworkClock::time_point lastActivity_;
  NetworkClock::time_point resourceDeadline_;
  bool idleExempt_ = false;  // suspended, as far as libcurl has been told
};

}  // namespace vondle
