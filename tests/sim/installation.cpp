#include "installation.h"

#include <stdexcept>
#include <utility>

#include "config/paths.h"
#include "service/leftovers.h"

namespace vondle::sim {
namespace {

template <class T>
T opened(Result<T> result) {
  if (!result) throw std::runtime_error("the service does not start: " + result.error().localizedDescription());
  return std::move(*result);
}

void require(const Result<void>& result) {
  if (!result) throw std::runtime_error("the service does not start: " + result.error().localizedDescription());
}

}  // namespace

Installation::Installation(const std::string& home, std::uint64_t seed, Timestamp now)
    : scheduler(seed),
      random_(seed),
      platform_{scheduler,
                scheduler,
                urlLoading,
                files,
                keychain_,
                notifyCentre_,
                users,
                process_,
                random_,
                previews_,
                BundleInformation({{"CFBundleShortVersionString", "1.4"},
                                   {"CFBundleVersion", "57"},
                                   {"CFBundleExecutable", "VondleFileProvider"}})} {
  users.home = home;
  scheduler.setWallClock(now);
}

void Installation::start() {
  folders_ = ServiceFolders::locate(users, std::nullopt);
  extensionProcess_ = std::make_unique<Process>(platform_);
  require(folders_.create());
  require(folders_.guardConfiguration());
  removeLeftovers(folders_.state, REPLACEMENT_PREFIX);
  if (const auto container = files.applicationGroupContainer(APPLICATION_GROUP))
    removeLeftovers(*container, REPLACEMENT_PREFIX);
  removeLeftovers(files.temporaryFolder(), "");

  replica_ = opened(Replica::open(folders_.replicaDatabase()));
  tree_ = std::make_unique<Tree>(*replica_, scheduler);
  extension_ = extensionProcess_->makeExtension({"com.ferrow.vondle.account", "Vondle"},
                                                [this](const Domain&) { return manager_; });
  contents_ = opened(ContentStore::open(folders_.contentFiles(), *tree_, *extension_, errors_, scheduler, scheduler));
  tree_->subscribe([this](const auto& changes) { contents_->apply(changes); });
  edits_ = opened(LocalEdits::open(folders_.editDatabase(), *tree_, scheduler, random_));
  edited_ = opened(EditedContents::open(folders_.editedFiles(), contents_, edits_, *tree_, scheduler, scheduler));
  sender_ = EditSender::make({.services = {.extension = *extension_,
                                           .edits = edits_,
                                           .contents = edited_,
                                           .sync = [this](auto completion) { follower_->sync(std::move(completion)); },
                                           .scheduler = scheduler},
                              .tree = *tree_,
                              .errors = errors_,
                              .clock = scheduler,
                              .temporaryNames = TemporaryNames()});
  listing_ = std::make_shared<FolderListing>(*tree_, *extension_, errors_, scheduler, scheduler);
  follower_ = std::make_shared<Follower>(*extension_, *tree_, scheduler, scheduler, files, folders_.anchorFile(),
                                         [this] { return filesystem_->lastUse(); });
  filesystem_ = std::make_shared<WritableFilesystem>(*tree_, *listing_, *contents_, edited_, edits_, scheduler,
                                                     [this] { follower_->noteUse(); });
  edited_->onSettled(
      [this](Inode inode, std::optional<std::uint64_t> tag) { filesystem_->contentsSettled(inode, tag); });
  tree_->subscribe([this](const std::vector<ReplicaChange>& news) { filesystem_->apply(news); });
  manager_ = std::make_shared<ServiceManager>("/home/tester/Vondle", *tree_, contents_, follower_, scheduler);
  kernel_ = std::make_unique<Kernel>(filesystem_, scheduler);
  follower_->start();
  sender_->start();
  contents_->checkServerWith([this](auto completion) { follower_->sync(std::move(completion)); });
}

}  // namespace vondle::sim
