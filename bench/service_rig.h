#pragma once

#include <filesystem>
#include <fstream>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include "base/json.h"
#include "config/paths.h"
#include "platform/linux/asio_scheduler.h"
#include "platform/linux/curl_url_session.h"
#include "platform/linux/helper_preview_renderer.h"
#include "platform/linux/linux_clock.h"
#include "platform/linux/linux_files.h"
#include "platform/linux/linux_process_control.h"
#include "platform/linux/linux_random.h"
#include "provider/process.h"
#include "service/contents/content_store.h"
#include "service/listing/folder_listing.h"
#include "service/replica/tree.h"
#include "testing/simulated_keychain.h"
#include "testing/simulated_notify_centre.h"
#include "testing/simulated_user_database.h"

namespace vondle::bench {

// The service and the extension as they run together, without the mount: real parts, a home folder of its own.
class ServiceRig {
 public:
  ServiceRig(const std::string& home, const json::Object& configuration) : users_(home, configuration) {}

  Replica& replica() { return *replica_; }
  ContentStore& contents() { return *contents_; }

  // Returns when the top folder is listed.
  void list() {
    std::promise<std::optional<Error>> listed;
    listing_->require(ROOT_INODE, {.isFileViewerRequest = true}, nullptr,
                      [&](std::optional<Error> error) { listed.set_value(std::move(error)); });
    if (const auto error = listed.get_future().get()) throw std::runtime_error(error->localizedDescription());
  }

 private:
  struct Home final : SimulatedUserDatabase {
    Home(const std::string& path, const json::Object& configuration) {
      home = path;
      std::filesystem::create_directories(Paths(*this).folder());
      std::filesystem::create_directories(path + "/contents");
      std::ofstream(Paths(*this).config()) << json::serialize(configuration);
    }
  };

  template <class T>
  static T taken(Result<T> result) {
    if (!result) throw std::runtime_error(result.error().localizedDescription());
    return std::move(*result);
  }

  Home users_;
  LinuxClock clock_;
  LinuxFiles files_{users_};
  LinuxRandom random_;
  LinuxProcessControl processControl_;
  SimulatedKeychain keychain_;
  SimulatedNotifyCentre notifyCentre_;
  CurlURLLoading loading_;
  LastErrors errors_;
  AsioScheduler scheduler_;
  HelperPreviewRenderer previews_;
  Process process_{Platform{clock_, scheduler_, loading_, files_, keychain_, notifyCentre_, users_, processControl_,
                            random_, previews_, BundleInformation({})}};
  std::shared_ptr<ReplicatedExtension> extension_ =
      process_.makeExtension({.identifier = "bench", .displayName = "Bench"},
                             [](const Domain&) -> std::shared_ptr<Manager> { return nullptr; });
  std::unique_ptr<Replica> replica_ = taken(Replica::open(*users_.home + "/replica.db"));
  Tree tree_{*replica_, scheduler_};
  std::shared_ptr<ContentStore> contents_ =
      taken(ContentStore::open(*users_.home + "/contents", tree_, *extension_, errors_, scheduler_, clock_));
  std::shared_ptr<FolderListing> listing_ =
      std::make_shared<FolderListing>(tree_, *extension_, errors_, scheduler_, clock_);
};

}  // namespace vondle::bench
