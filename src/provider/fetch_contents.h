#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/replicated_extension.h"
#include "provider/provider_services.h"

namespace vondle {

// Downloads an item's current contents to a temporary file: looks the item up afresh, then hands its download address
// to the transfer engine. Kept alive by what it waits for.
class FetchContents final : public std::enable_shared_from_this<FetchContents> {
 public:
  FetchContents(const ProviderServices& services, ItemIdentifier identifier, Request request,
                Completion<Result<FetchedContents>> completion);

  // The progress can cancel and pause the download.
  std::shared_ptr<Progress> start();

 private:
  void lookedUp(Result<Entry> entry);
  void download(const std::string& url);
  void downloaded(Result<std::string> path);
  void finish(Result<FetchedContents> result);

  const ProviderServices services_;
  const ItemIdentifier identifier_;
  const std::string_view kind_;  // who asks: "finder", "sync" or "other"
  const std::shared_ptr<Progress> progress_;
  Completion<Result<FetchedContents>> completion_;
  std::int64_t pendingID_ = 0;
  Entry entry_;
};

}  // namespace vondle
