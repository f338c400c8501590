#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "base/completion.h"
#include "base/error.h"
#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/files.h"

namespace vondle {

class VondleAPI;

// The uploads in parts that were begun and not finished, with the parts that the server has taken, kept for six days in
// "multipart-resume.json" in the container of the application group, so that an upload goes on where it was
// interrupted. Nothing is kept in memory: every call reads the file, and those that change something replace it, with
// the lock held all the while. A file that can't be read counts as empty; what can't be written is forgotten; without
// a container nothing is remembered. Any thread.
class MultipartResume {
 public:
  struct Saved {
    std::string key;
    std::string uploadID;
    std::int64_t size = 0;                     // of the whole file, bytes
    std::int64_t partSize = 0;                 // bytes
    std::map<std::string, std::string> etags;  // by part number, in decimal, from "1"
    Timestamp started;
    friend bool operator==(const Saved&, const Saved&) = default;
  };

  MultipartResume(Files& files, const Clock& clock) : files_(files), clock_(clock) {}
  static MultipartResume& shared();

  // The name under which an upload is saved: the same for the same file as long as it is unchanged. No time: unknown.
  static std::string identity(std::string_view name, std::int64_t size, std::optional<Timestamp> modified);

  // None when there is no container.
  std::optional<std::string> fileURL();

  std::optional<Saved> load(const std::string& id) EXCLUDES(lock_);
  // Takes the place of whatever is saved under the id.
  void begin(const std::string& id, const std::string& key, const std::string& uploadID, std::int64_t size,
             std::int64_t partSize) EXCLUDES(lock_);
  // Ignored unless that upload is saved under the id.
  void record(const std::string& id, const std::string& uploadID, std::int64_t part, const std::string& etag)
      EXCLUDES(lock_);
  void forget(const std::string& id) EXCLUDES(lock_);

  // Decides whether a file of this size can go on with what is saved under the id, asking the server. Completes with
  // the saved upload to resume, or with none to begin afresh, or with an error when neither is known to be right; then
  // what is saved stays.
  void check(const std::string& id, std::int64_t size, VondleAPI& api,
             Completion<Result<std::optional<Saved>>> completion) EXCLUDES(lock_);

 private:
  using Table = std::map<std::string, Saved>;

  Table readAll() REQUIRES(lock_);
  void writeAll(const Table& table) REQUIRES(lock_);

  Files& files_;
  const Clock& clock_;
  Mutex lock_;
};

}  // namespace vondle
