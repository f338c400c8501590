#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "base/mutex.h"
#include "platform/clock.h"
#include "platform/preview_renderer.h"
#include "storage/content_store.h"
#include "storage/store_pool.h"
#include "storage/thumb_kind.h"

namespace vondle::storage {

// Makes the previews that no client sent, a few at a time, in the order in which they were first asked for. What cannot
// be shown is remembered with the file, so that nobody tries again; what was waiting at the end of this object's life
// is forgotten, and made when it is asked for again. Any thread.
class Thumbnailer {
 public:
  static constexpr int MAX_AT_ONCE = 2;
  static constexpr int MAX_PIXELS = 400;       // longer side of a picture's
  static constexpr double MAX_WIDTH = 960;     // of a video's
  static constexpr double MAX_HEIGHT = 10000;  // in effect unbounded
  static constexpr double QUALITY = 0.82;      // of the JPEG

  Thumbnailer(StorePool& stores, const ContentStore& contents, const Clock& clock,
              std::unique_ptr<PreviewRenderer> renderer);
  ~Thumbnailer();
  Thumbnailer(const Thumbnailer&) = delete;
  Thumbnailer& operator=(const Thumbnailer&) = delete;

  // Sees to it that the file's preview is made; returns at once.
  void want(const Item& file) EXCLUDES(lock_);

 private:
  struct Job {
    std::string key;
    std::string extension;
    ThumbKind kind;
  };

  void beginNext() EXCLUDES(lock_);
  void render(const Job& job) EXCLUDES(lock_);
  void rendered(const std::string& key, std::optional<std::string> jpeg) EXCLUDES(lock_);
  // Nothing when the service failed, so that it is tried again.
  void keep(const std::string& key, const std::optional<std::string>& jpeg);
  Result<std::unique_ptr<ContentStore::Incoming>> receive(const std::string& key, const std::string& jpeg) const;

  StorePool& stores_;
  const ContentStore& contents_;
  const Clock& clock_;
  std::unique_ptr<PreviewRenderer> renderer_;
  Mutex lock_;
  ConditionVariable begun_;
  std::set<std::string> wanted_ GUARDED_BY(lock_);  // keys, waiting or being made
  std::deque<Job> waiting_ GUARDED_BY(lock_);
  int running_ GUARDED_BY(lock_) = 0;
  int beginning_ GUARDED_BY(lock_) = 0;  // of those: on their way to the renderer
  bool ending_ GUARDED_BY(lock_) = false;
};

}  // namespace vondle::storage
