#pragma once

#include <memory>

#include "api/vondle_api.h"
#include "base/shared_instance.h"
#include "config/config_loader.h"
#include "config/extension_restart.h"
#include "config/server_directory.h"
#include "fileprovider/domain.h"
#include "items/listing_gate.h"
#include "platform/platform.h"
#include "preview/client_thumb.h"
#include "provider/provider_services.h"
#include "provider/shared_listings.h"
#include "provider/vondle_file_provider.h"
#include "state/cursor.h"
#include "state/item_cache.h"
#include "state/pending.h"
#include "state/pins.h"
#include "transfer/large_upload.h"
#include "transfer/limits.h"
#include "transfer/stats.h"
#include "transfer/throttled_transfer.h"
#include "upload/multipart_resume.h"

namespace vondle {

// The extension's process: owns what its parts share, in the order in which they need each other. A program makes one;
// each test makes its own. The platform must outlive it. Before it ends, the service must be gone and the scheduler's
// threads must stand still; what still runs on the network is then answered with a cancellation. What waits for the
// scheduler or a preview is not, as an upload does between two tries: a program leaves with _exit instead, at any
// moment, and what lets an upload go on is on disk by then.
class Process {
 public:
  explicit Process(const Platform& platform, const ServerDirectory& directory = ServerDirectory::ofThisBuild());
  ~Process();
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  // The extension must be gone before the process.
  std::shared_ptr<VondleFileProvider> makeExtension(Domain domain, ManagerForDomain managerForDomain);

  // For reports of what is going on.
  [[nodiscard]] ThrottledTransfer& transfers() { return *transfers_; }
  [[nodiscard]] Limits& limits() { return *limits_; }
  [[nodiscard]] LargeUpload& largeUpload() { return *largeUpload_; }

 private:
  [[nodiscard]] ProviderServices services();

  const Platform platform_;
  const Paths paths_;
  ConfigLoader config_;
  ExtensionRestart restart_;
  SharedInstance<Limits> limits_;
  SharedInstance<LargeUpload> largeUpload_;
  SharedInstance<Stats> stats_;
  SharedInstance<Cursor> cursor_;
  SharedInstance<Pins> pins_;
  SharedInstance<Pending> pending_;
  SharedInstance<MultipartResume> resume_;
  SharedInstance<VondleAPI> api_;
  SharedInstance<ItemCache> cache_;
  SharedListings listings_;
  SharedInstance<ListingGate> gate_;
  SharedInstance<ClientThumb> thumbs_;
  SharedInstance<ThrottledTransfer> transfers_;  // last: its end answers operations, which use the others
};

}  // namespace vondle
