#pragma once

#include <cstdint>
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

// Brings a change of an item's name or place to the server: a move, or into or out of the trash. All other fields are
// accepted and left alone, and what needs no change on the server is not sent. Contents are WriteContents' affair.
// Kept alive by what it waits for.
class ModifyItem final : public std::enable_shared_from_this<ModifyItem> {
 public:
  ModifyItem(const ProviderServices& services, Item item, std::uint32_t changedFields,
             Completion<Result<SavedItem>> completion);

  std::shared_ptr<Progress> start();

 private:
  void lookedUp(std::optional<Entry> entry);
  void trash();
  void restore();
  // To a place in a folder, under the name wanted.
  void relocate();
  void move(const std::optional<std::string>& folderPath);
  void changed(const Result<json::Object>& reply);
  void nothingToSend();
  void finish(Result<SavedItem> result);
  [[nodiscard]] bool changes(ItemFields field) const { return (changedFields_ & field) != 0; }

  const ProviderServices services_;
  const Item item_;  // as the service wants it
  const std::uint32_t changedFields_;
  Completion<Result<SavedItem>> completion_;
  Entry entry_;  // as the server has it
};

}  // namespace vondle
