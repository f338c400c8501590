#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/completion.h"
#include "base/mutex.h"
#include "base/time.h"
#include "fileprovider/replicated_extension.h"
#include "platform/clock.h"
#include "platform/progress.h"
#include "platform/scheduler.h"
#include "service/contents/cache_rules.h"
#include "service/contents/content_file.h"
#include "service/contents/content_state.h"
#include "service/last_errors.h"
#include "service/replica/tree.h"
#include "service/waiting_room.h"

namespace vondle {

// A fetch that is under way.
struct ContentTransfer {
  Inode inode = 0;
  std::shared_ptr<Progress> progress;
  bool isWaitedFor = false;  // a program reads it now
};

// The downloaded contents: one private file per item in a folder of its own, named by inode and content tag, so that
// what a file holds can be told from its name alone, also after a restart. Everything in that folder can be had again
// from the server. What programs have edited lies elsewhere (see EditedContents, which tells of it here): it is neither
// dropped nor fetched over. Any thread.
class ContentStore : public std::enable_shared_from_this<ContentStore> {
 public:
  using ContentAnswer = Completion<const Result<std::shared_ptr<const ContentFile>>&>;

  // How often a fetch is begun anew because the contents changed on the server meanwhile.
  static constexpr int MAX_ATTEMPTS = 5;
  // The file system remembers to this accuracy when a file was used last, for the next start.
  static constexpr Duration USE_ACCURACY = seconds(600);
  // How the name of a copy that is not whole ends.
  static constexpr std::string_view UNFINISHED = ".part";

  // The folder is made when missing. Files in it that fit no item of the replica are removed.
  static Result<std::shared_ptr<ContentStore>> open(std::string folder, Tree& tree, ReplicatedExtension& extension,
                                                    LastErrors& errors, Scheduler& scheduler, const Clock& clock);

  // The contents if they are here in the version the replica knows; opens a local file, so it never waits for the
  // network. Null otherwise, and when they are edited.
  [[nodiscard]] std::shared_ptr<const ContentFile> current(Inode inode) EXCLUDES(lock_);

  // Room on the disk that a fetch has, as long as this lives.
  using Room = std::shared_ptr<const void>;
  using Reserve = std::function<void(Inode, std::int64_t bytes, Completion<Result<Room>>)>;
  // Each fetch asks this for room before it begins, and fails with its error. Without it there is room for everything.
  void reserveWith(Reserve reserve) EXCLUDES(lock_);

  // The contents, fetched first when they are not here; everyone who wants the same item shares one fetch, and when all
  // their waits are cancelled it is cancelled. A program's wait for what is fetched in the background begins the fetch
  // anew, ahead of the others, unless half of it is here. Errors: the extension's; NO_SUCH_ITEM
  // for an unknown item or a folder; POSIX errors for the local file; USER_CANCELLED. `wait` may be null. Of edited
  // contents it is what is in the private file now.
  void require(Inode inode, Request request, const std::shared_ptr<Progress>& wait, ContentAnswer answer)
      EXCLUDES(lock_);

  // An extension reports whatever it could not look up as NO_SUCH_ITEM, a server out of reach as well. This reads the
  // server's changes and completes with what went wrong there; its error then stands for the extension's.
  using ServerCheck = std::function<void(Completion<std::optional<Error>>)>;
  void checkServerWith(ServerCheck check) EXCLUDES(lock_);

  // Drops the local copy; open files keep theirs. Nothing to drop is success; one that is being fetched or is not on
  // the server yet is EBUSY.
  std::optional<Error> evict(Inode inode) EXCLUDES(lock_);

  // Those that are here as the server has them; what is kept is not told.
  [[nodiscard]] std::vector<CachedFile> cachedFiles() const EXCLUDES(lock_);
  // Drops the local copy if nobody has it open or has used it since. False when it stays.
  bool evictUnused(Inode inode, Timestamp lastUse) EXCLUDES(lock_);
  // On which files come and go, in order.
  [[nodiscard]] const std::shared_ptr<Queue>& queue() const { return queue_; }

  // What the changes mean for the contents; subscribe it to the Tree.
  void apply(const std::vector<ReplicaChange>& changes) EXCLUDES(lock_);

  // For EditedContents. What is here becomes the private file at the path, without copying where that can be, and is
  // edited from now on. Completes with the tag it had; EAGAIN when it is not here (any more).
  using GivenAway = Completion<Result<std::uint64_t>>;
  void giveAway(Inode inode, std::string path, GivenAway completion);
  // The private file at the path is the contents, whatever was here.
  void noteEdited(Inode inode, std::string path) EXCLUDES(lock_);
  // It is sent, or may be written to again.
  void noteSending(Inode inode, bool isSending) EXCLUDES(lock_);
  // What was sent is what the server has with this tag: the private file is shared or copied, and is no longer needed
  // afterwards.
  void takeBack(Inode inode, std::uint64_t tag, std::string path, Completion<> completion);
  // The private file is no longer the contents, and no others are here.
  void noteAbandoned(Inode inode) EXCLUDES(lock_);
  // Hears of each item of which that is so, on any thread.
  using Abandoned = std::function<void(Inode)>;
  void onAbandoned(Abandoned heard) EXCLUDES(lock_);

  [[nodiscard]] const std::string& folder() const { return folder_; }
  [[nodiscard]] ContentState state(Inode inode) const EXCLUDES(lock_);
  [[nodiscard]] std::size_t waitersFor(Inode inode) const { return waiting_->waitingFor(inode); }
  [[nodiscard]] std::int64_t bytesHere() const EXCLUDES(lock_);  // without what is edited
  // What one item has here, whether as on the server or edited.
  [[nodiscard]] std::int64_t bytesHere(Inode inode) const EXCLUDES(lock_);
  [[nodiscard]] std::size_t filesHere() const EXCLUDES(lock_);
  [[nodiscard]] std::vector<ContentTransfer> transfers() const EXCLUDES(lock_);
  // Of a fetch under way; null otherwise.
  [[nodiscard]] std::shared_ptr<Progress> progressOf(Inode inode) const EXCLUDES(lock_);

  // Cancels every fetch and ends every wait with the error; later ones fail with it too.
  void close(Error error) EXCLUDES(lock_);

 private:
  class Fetch;
  struct Record {
    ContentState state = ContentState::absent;
    std::uint64_t tag = 0;                  // of clean
    std::int64_t size = 0;                  // of clean
    Timestamp lastUse;                      // of clean
    Timestamp savedUse;                     // of clean: what the file system remembers of that
    std::weak_ptr<const ContentFile> file;  // of clean, while somebody has it open
    std::shared_ptr<Fetch> fetch;           // of fetching
    std::string privatePath;                // of edited and uploading
  };

  ContentStore(std::string folder, Tree& tree, ReplicatedExtension& extension, LastErrors& errors, Scheduler& scheduler,
               const Clock& clock);
  Result<void> scan() EXCLUDES(lock_);
  [[nodiscard]] std::string pathOf(Inode inode, std::uint64_t tag) const;
  [[nodiscard]] ServerCheck serverCheck() const EXCLUDES(lock_);
  // Without a way to reserve, an answer without room.
  void reserve(Inode inode, std::int64_t bytes, Completion<Result<Room>> answer) EXCLUDES(lock_);
  std::shared_ptr<const ContentFile> openCurrent(Inode inode, std::uint64_t tag) EXCLUDES(lock_);
  // Notes that the file is used now. True when the file system is to hear of it.
  [[nodiscard]] bool noteUse(Record& record, Timestamp now) REQUIRES(lock_);
  void begin(Inode inode, Request request) EXCLUDES(lock_);
  void abandoned(Inode inode) EXCLUDES(lock_);
  void finished(Inode inode, const std::shared_ptr<Fetch>& fetch, Request request, bool wasAbandoned,
                const Result<std::shared_ptr<const ContentFile>>& result) EXCLUDES(lock_);
  [[nodiscard]] std::optional<std::string> privatePathOf(Inode inode) const EXCLUDES(lock_);
  [[nodiscard]] std::shared_ptr<Fetch> fetchOf(Inode inode) const EXCLUDES(lock_);
  // Keeps what a fetch has brought. False when it is not wanted any more.
  bool take(Inode inode, const std::shared_ptr<Fetch>& fetch, const Result<std::shared_ptr<const ContentFile>>& result)
      EXCLUDES(lock_);
  void becomeEdited(Inode inode, std::string path) REQUIRES(lock_);
  // Moves the record on; one that becomes absent goes. False when the event cannot happen.
  bool move(Inode inode, ContentEvent event) REQUIRES(lock_);
  void removeLater(std::string path);

  const std::string folder_;
  Tree& tree_;
  ReplicatedExtension& extension_;
  LastErrors& errors_;
  const Clock& clock_;
  Scheduler& scheduler_;
  std::shared_ptr<Queue> queue_;  // everything that changes files, in order
  std::shared_ptr<WaitingRoom<std::shared_ptr<const ContentFile>>> waiting_;
  mutable Mutex lock_;
  std::unordered_map<Inode, Record> records_ GUARDED_BY(lock_);  // those not absent
  std::int64_t bytesHere_ GUARDED_BY(lock_) = 0;
  std::optional<Error> closed_ GUARDED_BY(lock_);
  ServerCheck checkServer_ GUARDED_BY(lock_);
  Reserve reserve_ GUARDED_BY(lock_);
  Abandoned abandoned_ GUARDED_BY(lock_);
};

}  // namespace vondle
