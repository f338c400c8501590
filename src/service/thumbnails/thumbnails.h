#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/mutex.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/picture_scaler.h"
#include "platform/scheduler.h"
#include "service/inode.h"
#include "service/replica/tree.h"
#include "service/thumbnails/place_changes.h"
#include "service/thumbnails/thumbnail_cache.h"
#include "service/thumbnails/thumbnail_outcomes.h"

namespace vondle {

// Puts the server's thumbnails where file managers look for them, so that they show pictures without opening the files:
// when a program lists a folder, those of the pictures and videos in it that have none yet for their time. The newest
// folder goes first; one request at a time. An item whose contents programs have changed has none until they are on the
// server. Thumbnails move and go with their files.
//
// What cannot be had is asked for again when the folder is listed another time, LOOK_AGAIN later at the soonest. While
// nobody lists, nothing runs. Any thread.
class Thumbnails : public std::enable_shared_from_this<Thumbnails> {
 public:
  static constexpr std::size_t BATCH = 100;  // identifiers in a request
  // Files and folders that wait; the folders listed longest ago go first.
  static constexpr std::size_t MAX_WAITING = 5'000;
  static constexpr std::size_t MAX_FOLDERS = 1'000;
  // A folder that was listed a moment ago is looked at only if something has changed.
  static constexpr Duration LOOK_AGAIN = seconds(60);
  // An item of which the server has none, or no picture, is left alone that long.
  static constexpr Duration LEAVE_ALONE = seconds(3'600);
  // After the cache could not be written.
  static constexpr Duration REST = seconds(600);
  // Pictures in memory.
  static constexpr std::size_t MAX_BYTES = 64u << 20;

  struct Parts {
    Tree& tree;
    ReplicatedExtension& extension;
    std::function<bool(Inode)> isEdited;  // by programs, and not on the server yet
    PictureScaler& scaler;
    ThumbnailCache cache;
    Scheduler& scheduler;
    const Clock& clock;
    std::string mountPath;
    bool keepsFailures = false;  // writes down which files have none
  };

  explicit Thumbnails(Parts parts);

  // A program lists the folder. Costs next to nothing.
  void folderListed(Inode folder) EXCLUDES(lock_);
  // Whether one may come for the file, which has this name, that is not where file managers look for it yet.
  [[nodiscard]] bool mayCome(const ItemAttributes& file, std::string_view name) const;
  // When it is there, or is not to be had now; at the latest after ThumbnailOutcomes::PATIENCE.
  void whenSettled(const ItemAttributes& file, const std::shared_ptr<Progress>& wait, ThumbnailOutcomes::Answer answer)
      EXCLUDES(lock_);
  // Subscribe it to the Tree.
  void apply(const std::vector<ReplicaChange>& changes) EXCLUDES(lock_);
  // Ends what runs, and begins nothing more.
  void stop();

 private:
  // A file, with what its contents were when it was looked at.
  struct File {
    Inode inode = 0;
    std::uint64_t tag = 0;
  };
  struct Folder {
    Inode inode = 0;
    std::vector<File> files;
  };
  struct Look {
    Folder folder;
    std::size_t done = 0;
    std::vector<File> lacking = {};
  };
  struct Batch {
    std::map<ItemIdentifier, File> asked;
    std::shared_ptr<Progress> progress;
    std::size_t answered = 0, failed = 0;
  };
  struct Refusal {
    std::uint64_t tag = 0;
    MonotonicTime until;
  };
  // A search of the whole cache, after folders were moved.
  struct Search {
    std::vector<PlaceChanges> moments;
    std::vector<std::string> entries;
    std::set<std::string> uris;  // that may have changed
  };

  // All on the queue.
  void lookOn() EXCLUDES(lock_);
  void beginLook() EXCLUDES(lock_);
  void endLook(Look look);
  void work();
  void beginBatch();
  void received(Batch& batch, const ItemIdentifier& identifier, Result<std::optional<std::string>> image);
  void ended(const Batch& batch);
  void scale(const File& file, std::string image);
  void scaled(const File& file, std::size_t bytes, const std::optional<ScaledPicture>& picture);
  void hasNone(const File& file);
  // It is not to be had now.
  void leave(const File& file);
  void forgetWaiting();
  void cacheFailed(const Error& error);
  void moveOn() EXCLUDES(lock_);
  void beginMoving() EXCLUDES(lock_);
  void carryOut(const std::set<std::string>& uris, const std::vector<PlaceChanges>& moments);

  [[nodiscard]] std::vector<File> filesIn(Inode folder) const;
  [[nodiscard]] bool lacks(const File& file) const;
  // None when it has gone or its contents are others.
  [[nodiscard]] std::optional<ThumbnailSubject> subjectOf(const File& file) const;
  [[nodiscard]] bool isResting() const { return parts_.clock.monotonic() < restUntil_; }
  [[nodiscard]] Replica& replica() const { return parts_.tree.replica(); }

  const Parts parts_;
  const std::shared_ptr<Queue> queue_;
  const std::shared_ptr<ThumbnailOutcomes> outcomes_;

  // Used on the queue alone.
  std::optional<Look> look_;
  std::deque<Folder> waiting_;  // the latest at the end
  std::size_t waitingCount_ = 0;
  std::shared_ptr<Batch> batch_;
  std::size_t scaling_ = 0, scalingBytes_ = 0;
  std::unordered_map<Inode, Refusal> refused_;
  MonotonicTime restUntil_;
  bool hasFailed_ = false;  // and the log says so
  std::optional<Search> search_;
  bool isStopped_ = false;

  Mutex lock_;
  std::unordered_map<Inode, MonotonicTime> listed_ GUARDED_BY(lock_);
  std::deque<Inode> toLookAt_ GUARDED_BY(lock_);
  bool isLooking_ GUARDED_BY(lock_) = false;
  std::deque<PlaceChanges> moments_ GUARDED_BY(lock_);  // still to be followed
  bool isMoving_ GUARDED_BY(lock_) = false;
};

}  // namespace vondle
