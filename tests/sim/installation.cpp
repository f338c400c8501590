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

Installation::Installation(const std::string& home, std::uint64_t seed, Timestamp now, CacheLimits cache)
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
                                   {"CFBundleExecutable", "VondleFileProvider"}})},
      cache_(cache) {
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

  extension_ = extensionProcess_->makeExtension({"com.ferrow.vondle.account", "Vondle"},
                                                [this](const Domain&) { return manager_; });
  core_ = opened(
      ServiceCore::open({.extension = *extension_, .platform = platform_, .folders = folders_, .lastUse = [this] {
                           return filesystem_->lastUse();
                         }}));
  filesystem_ =
      std::make_shared<WritableFilesystem>(core_->tree(), *core_->listing(), *core_->contents(), core_->edited(),
                                           core_->edits(), scheduler, [this] { core_->noteUse(); });
  core_->edited()->onSettled(
      [this](Inode inode, std::optional<std::uint64_t> tag) { filesystem_->contentsSettled(inode, tag); });
  core_->tree().subscribe([this](const std::vector<ReplicaChange>& news) { filesystem_->apply(news); });
  manager_ = std::make_shared<ServiceManager>("/home/tester/Vondle", core_->tree(), core_->contents(),
                                              core_->follower(), scheduler);
  kernel_ = std::make_unique<Kernel>(filesystem_, scheduler);
  core_->start();
}

}  // namespace vondle::sim
