#include "cli/transfer_settings.h"

namespace vondle {

TransferSettings TransferSettings::from(const json::Object& config) {
  TransferSettings settings;
  settings.downloadKilobytes = json::number(config, "max_download_kbps").value_or(0);
  settings.uploadKilobytes = json::number(config, "max_upload_kbps").value_or(0);
  if (const auto count = json::integer(config, "max_concurrent_transfers"); count && *count > 0) {
    settings.transfers = *count;
  }
  settings.paused = json::boolean(config, "transfers_paused").value_or(json::number(config, "transfers_paused") > 0);
  return settings;
}

json::Object TransferSettings::toJSON() const {
  return {{"max_download_kbps", downloadKilobytes},
          {"max_upload_kbps", uploadKilobytes},
          {"max_concurrent_transfers", transfers},
          {"transfers_paused", paused}};
}

}  // namespace vondle
