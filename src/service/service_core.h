#pragma once

#include <functional>
#include <memory>

#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "platform/platform.h"
#include "service/contents/cache_limiter.h"
#include "service/contents/content_store.h"
#include "service/contents/edited_contents.h"
#include "service/edits/edit_sender.h"
#include "service/edits/local_edits.h"
#include "service/edits/temporary_names.h"
#include "service/follow/follower.h"
#include "service/follow/keeper.h"
#include "service/last_errors.h"
#include "service/listing/folder_listing.h"
#include "service/notices/notices.h"
#include "service/replica/replica.h"
#include "service/replica/tree.h"
#include "service/service_folders.h"

namespace vondle {

// The account as this machine has it: the tree, the contents, what programs change and its way to the server, what is
// to be here and what goes, and the change feed, connected with each other over one extension. What a service has
// beside it faces the user: the mounted folder, the control socket, the desktop. Made and used on any thread; the
// parts must outlive it.
class ServiceCore {
 public:
  struct Parts {
    ReplicatedExtension& extension;
    Platform platform;
    ServiceFolders folders;  // which exist
    CacheLimits cache = {};
    TemporaryNames temporaryNames = TemporaryNames();
    std::shared_ptr<Notices> notices = nullptr;  // null: the user is told nothing
    std::function<MonotonicTime()> lastUse;      // of the folder, by a program
  };

  // Reads what is on disk. Nothing runs and nothing is sent before start.
  static Result<std::unique_ptr<ServiceCore>> open(Parts parts);
  void start();
  // A program uses the folder, which may need room and news. Cheap.
  void noteUse();
  // Ends what runs and what waits. What is not on the server yet goes there after the next start.
  void stop();

  [[nodiscard]] LastErrors& errors() { return errors_; }
  [[nodiscard]] Replica& replica() { return *replica_; }
  [[nodiscard]] Tree& tree() { return *tree_; }
  [[nodiscard]] const std::shared_ptr<ContentStore>& contents() const { return contents_; }
  [[nodiscard]] const std::shared_ptr<CacheLimiter>& limiter() const { return limiter_; }
  [[nodiscard]] const std::shared_ptr<LocalEdits>& edits() const { return edits_; }
  [[nodiscard]] const std::shared_ptr<EditedContents>& edited() const { return edited_; }
  [[nodiscard]] const std::shared_ptr<EditSender>& sender() const { return sender_; }
  [[nodiscard]] const std::shared_ptr<FolderListing>& listing() const { return listing_; }
  [[nodiscard]] const std::shared_ptr<Keeper>& keeper() const { return keeper_; }
  [[nodiscard]] const std::shared_ptr<Follower>& follower() const { return follower_; }

 private:
  explicit ServiceCore(Parts parts) : parts_(std::move(parts)) {}
  Result<void> openTree();
  Result<void> openContents();
  void limitContents();
  // Also for a folder that is for reading alone: what is left of earlier runs still goes up.
  Result<void> openEdits();
  void makeKeeper();
  void makeFollower();
  void tellOfFailures();
  void makeSender();

  const Parts parts_;
  LastErrors errors_;
  std::unique_ptr<Replica> replica_;
  std::unique_ptr<Tree> tree_;
  std::shared_ptr<ContentStore> contents_;
  std::shared_ptr<CacheLimiter> limiter_;
  std::shared_ptr<LocalEdits> edits_;
  std::shared_ptr<EditedContents> edited_;
  std::shared_ptr<FolderListing> listing_;
  std::shared_ptr<Keeper> keeper_;
  std::shared_ptr<Follower> follower_;
  std::shared_ptr<EditSender> sender_;
};

}  // namespace vondle
