#include "provider/process.h"

#include <utility>

#include "config/client_header.h"

namespace vondle {

Process::Process(const Platform& platform, const ServerDirectory& directory)
    : platform_(platform),
      paths_(platform.users),
      config_(platform.files, platform.keychain, paths_, directory),
      restart_(platform.files, platform.notifyCentre, platform.process, platform.bundle),
      limits_(platform.clock, platform.files, paths_.config()),
      largeUpload_(platform.clock, platform.scheduler, platform.files, *limits_,
                   paths_.folder() + "/large_upload.json"),
      stats_(platform.clock, platform.scheduler, platform.files),
      cursor_(platform.files),
      pins_(platform.files, platform.clock, paths_),
      pending_(platform.clock, platform.scheduler),
      resume_(platform.files, platform.clock),
      api_(platform.urlLoading, platform.clock, config_, vondleClientHeader(platform.bundle)),
      cache_(*api_, platform.clock),
      listings_(*api_, *cache_),
      gate_(platform.scheduler.global()),
      thumbs_(platform.clock, platform.scheduler, platform.files, platform.random, platform.urlLoading,
              platform.previews),
      transfers_(TransferServices{platform.clock, platform.scheduler, platform.urlLoading, platform.files,
                                  platform.random, *limits_, *largeUpload_, *stats_}) {}

// The API first: after it no operation goes on to a transfer.
Process::~Process() {
  api_->stop();
}

std::shared_ptr<VondleFileProvider> Process::makeExtension(Domain domain, ManagerForDomain managerForDomain) {
  return std::make_shared<VondleFileProvider>(std::move(domain), std::move(managerForDomain), services(), restart_);
}

ProviderServices Process::services() {
  return {{*api_, *cache_, *gate_, *pins_, *cursor_, platform_.scheduler},
          platform_.clock,
          *pending_,
          *transfers_,
          listings_,
          {*api_, *transfers_, *resume_, *thumbs_, *largeUpload_, *limits_, platform_.files, platform_.scheduler,
           platform_.random}};
}

}  // namespace vondle
