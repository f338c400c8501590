#pragma once

#include <memory>
#include <optional>
#include <string>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "base/json.h"
#include "fileprovider/replicated_extension.h"
#include "provider/provider_services.h"

namespace vondle {

// Makes a folder, or a file of a local file's contents, on the server. Errors: NO_SUCH_ITEM when the parent is not
// known, or what was made is not found in it; the API client's for a folder; those of providerError for an upload; the
// local file's own. Kept alive by what it waits for.
class CreateItem final : public std::enable_shared_from_this<CreateItem> {
 public:
  CreateItem(const ProviderServices& services, Item basedOn, std::optional<std::string> contents,
             Completion<Result<SavedItem>> completion);

  // The progress can cancel and pause an upload.
  std::shared_ptr<Progress> start();

 private:
  void foundParent(std::optional<std::string> path);
  void makeFolder();
  void folderMade(const Result<json::Object>& reply);
  void makeFile(const std::string& contents);
  void uploaded(Result<std::string> key);
  void findMade(std::optional<std::string> givenKey);
  void finish(Result<SavedItem> result);

  const ProviderServices services_;
  const Item template_;
  const std::string parentID_;  // the server's
  const std::optional<std::string> contents_;
  const std::shared_ptr<Progress> progress_;
  Completion<Result<SavedItem>> completion_;
  std::string parentPath_;
};

}  // namespace vondle
