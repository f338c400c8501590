#pragma once

#include <functional>
#include <optional>
#include <string>

#include "base/error.h"
#include "base/json.h"
#include "base/time.h"

namespace vondle {

// One connection to the control socket of the service. One thread; calls block.
class ControlClient {
 public:
  // Domain of errors that the service answered; the description is its text, `code` is 0 and the service's own code is
  // given by lastCode. Failures of the connection are of POSIX_ERROR_DOMAIN: ECONNREFUSED and ENOENT mean that no
  // service runs, ECONNRESET that it ended before it answered, ETIMEDOUT that it did not answer in time.
  static constexpr std::string_view ERROR_DOMAIN = "VondleControlError";

  static Result<ControlClient> connect(const std::string& path);
  ~ControlClient();
  ControlClient(ControlClient&& other) noexcept;
  ControlClient& operator=(ControlClient&&) = delete;
  ControlClient(const ControlClient&) = delete;
  ControlClient& operator=(const ControlClient&) = delete;

  // Sends the request and waits for its last line. No time limit: as long as the service lives.
  Result<json::Object> request(const json::Object& request, std::optional<Duration> timeLimit = std::nullopt,
                               const std::function<void(const json::Object&)>& progress = {});

  // The service's code for the last error it answered (control_protocol.h).
  [[nodiscard]] const std::string& lastCode() const { return lastCode_; }

 private:
  explicit ControlClient(int descriptor) : descriptor_(descriptor) {}
  Result<std::string> readLine(std::optional<std::int64_t> deadlineMilliseconds);

  int descriptor_;
  std::string buffer_;
  std::string lastCode_;
};

}  // namespace vondle
