#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "api/entry.h"
#include "base/completion.h"
#include "base/error.h"
#include "fileprovider/actions.h"
#include "fileprovider/domain.h"
#include "fileprovider/replicated_extension.h"
#include "provider/provider_services.h"

namespace vondle {

class ExtensionRestart;

// The extension of one domain, made when the service first needs it. It holds nothing but the domain; whatever it
// consults is shared by the process. Any thread.
class VondleFileProvider final : public ReplicatedExtension {
 public:
  // Starts listening for restart requests; uses no network.
  VondleFileProvider(Domain domain, ManagerForDomain managerForDomain, const ProviderServices& services,
                     ExtensionRestart& restart);

  void invalidate() override {}

  // Whatever goes wrong, the answer is NO_SUCH_ITEM. A cached record is trusted whatever its age.
  std::shared_ptr<Progress> itemForIdentifier(ItemIdentifier identifier, Request request,
                                              Completion<Result<Item>> completion) override;
  std::shared_ptr<Enumerator> enumeratorForContainer(ItemIdentifier container, Request request) override;
  std::shared_ptr<Progress> fetchContents(ItemIdentifier identifier, std::optional<ItemVersion> version,
                                          Request request, Completion<Result<FetchedContents>> completion) override;
  std::shared_ptr<Progress> createItem(Item basedOn, std::uint32_t fields, std::optional<std::string> contents,
                                       std::uint32_t options, Request request,
                                       Completion<Result<SavedItem>> completion) override;
  std::shared_ptr<Progress> modifyItem(Item item, ItemVersion baseVersion, std::uint32_t changedFields,
                                       std::optional<std::string> contents, std::uint32_t options, Request request,
                                       Completion<Result<SavedItem>> completion) override;
  std::shared_ptr<Progress> deleteItem(ItemIdentifier identifier, ItemVersion baseVersion, std::uint32_t options,
                                       Request request, Completion<std::optional<Error>> completion) override;
  std::shared_ptr<Progress> performAction(std::string action, std::vector<ItemIdentifier> identifiers,
                                          Completion<std::optional<Error>> completion) override;
  std::shared_ptr<Progress> fetchThumbnails(std::vector<ItemIdentifier> identifiers, ThumbnailSize requestedSize,
                                            ThumbnailReceiver receiver,
                                            Completion<std::optional<Error>> completion) override;

  // The server path of the folder with this server id, asked for afresh, or as last known when the server fails; none
  // when it is not known either.
  void parentPath(const std::string& id, Completion<std::optional<std::string>> completion);

  // The first entry of the folder whose name is exactly this; none when there is none or the listing fails.
  void findChild(std::string name, std::string folderID, Completion<std::optional<Entry>> completion);

  // The answer to contents that cannot be written.
  static Error noWrites();

  static constexpr std::string_view keepAction = KEEP_DOWNLOADED_ACTION;
  static constexpr std::string_view unkeepAction = STOP_KEEPING_ACTION;

 private:
  const Domain domain_;
  const ManagerForDomain managerForDomain_;
  const ProviderServices services_;
};

}  // namespace vondle
