#include "api/provider_error.h"

#include <fmt/format.h>

#include "api/api_error.h"
#include "fileprovider/error_codes.h"
#include "transfer/transfer_error.h"

namespace vondle {
namespace {

constexpr std::int64_t INSUFFICIENT_STORAGE = 507;

Error fileProviderError(std::int64_t code, std::string description) {
  return {FILE_PROVIDER_ERROR_DOMAIN, code, std::move(description)};
}

Error forTransferStatus(std::int64_t status, std::string_view name) {
  switch (status) {
    case 401:
      return fileProviderError(NOT_AUTHENTICATED,
                               fmt::format("Vondle needs to be signed in again to download “{}”.", name));
    case 403:
    case 404:
    case 410:
      return {COCOA_ERROR_DOMAIN, FILE_NO_SUCH_FILE,
              fmt::format("“{}” couldn't be downloaded from Vondle storage (HTTP {}): the file is missing there, or "
                          "access to it was refused.",
                          name, status)};
    default:
      return fileProviderError(SERVER_UNREACHABLE,
                               fmt::format("Vondle's server answered HTTP {} for “{}”.", status, name));
  }
}

Error translated(const Error& error, std::string_view name) {
  if (error.is(URL_ERROR_DOMAIN, URL_CANCELLED)) return {COCOA_ERROR_DOMAIN, USER_CANCELLED};
  if (error.isIn(URL_ERROR_DOMAIN))
    return fileProviderError(SERVER_UNREACHABLE,
                             fmt::format("Vondle couldn't reach its server to download “{}”.", name));
  if (APIError::from(error) == APIError::badResponse(INSUFFICIENT_STORAGE))
    return fileProviderError(INSUFFICIENT_QUOTA,
                             fmt::format("Vondle is full. “{}” will upload once there is room; {}", name, fullAdvice));
  if (const auto transfer = TransferError::from(error); transfer && transfer->kind == TransferError::Kind::http)
    return forTransferStatus(transfer->status, name);
  return fileProviderError(SERVER_UNREACHABLE,
                           fmt::format("Vondle couldn't download “{}”: {}", name, error.localizedDescription()));
}

}  // namespace

Error providerError(const Error& error, std::string_view name) {
  if (error.isIn(FILE_PROVIDER_ERROR_DOMAIN) || error.is(COCOA_ERROR_DOMAIN, USER_CANCELLED)) return error;
  return translated(error, name).withUnderlying(error);
}

}  // namespace vondle
