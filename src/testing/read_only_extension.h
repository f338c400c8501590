#pragma once

#include <utility>

#include "fileprovider/error_codes.h"
#include "fileprovider/replicated_extension.h"

namespace vondle {

// The part of a test's extension that refuses every change, action and thumbnail.
class ReadOnlyExtension : public ReplicatedExtension {
 public:
  static Error refusal() { return {COCOA_ERROR_DOMAIN, FEATURE_UNSUPPORTED, "this extension takes no changes"}; }

  std::shared_ptr<Progress> createItem(Item, std::uint32_t, std::optional<std::string>, std::uint32_t, Request,
                                       Completion<Result<SavedItem>> completion) override {
    std::move(completion)(failure(refusal()));
    return Progress::make();
  }
  std::shared_ptr<Progress> modifyItem(Item, ItemVersion, std::uint32_t, std::optional<std::string>, std::uint32_t,
                                       Request, Completion<Result<SavedItem>> completion) override {
    std::move(completion)(failure(refusal()));
    return Progress::make();
  }
  std::shared_ptr<Progress> deleteItem(ItemIdentifier, ItemVersion, std::uint32_t, Request,
                                       Completion<std::optional<Error>> completion) override {
    std::move(completion)(refusal());
    return Progress::make();
  }
  std::shared_ptr<Progress> performAction(std::string, std::vector<ItemIdentifier>,
                                          Completion<std::optional<Error>> completion) override {
    std::move(completion)(refusal());
    return Progress::make();
  }
  std::shared_ptr<Progress> fetchThumbnails(std::vector<ItemIdentifier>, ThumbnailSize, ThumbnailReceiver,
                                            Completion<std::optional<Error>> completion) override {
    std::move(completion)(refusal());
    return Progress::make();
  }
};

}  // namespace vondle
