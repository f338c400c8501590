#include "service/edits/send_failure.h"

#include <algorithm>
#include <array>
#include <optional>

#include "fileprovider/error_codes.h"

namespace vondle {

namespace {

// What a proxy says in place of a server that is away.
constexpr std::array<std::int64_t, 3> GATEWAY_STATUSES = {502, 503, 504};

// Of an error of the URL session that is about a file here or about a single transfer, and not about the server.
constexpr std::array<std::int64_t, 5> OWN_URL_ERRORS = {URL_REQUEST_BODY_STREAM_EXHAUSTED, URL_FILE_DOES_NOT_EXIST,
                                                        URL_NO_PERMISSIONS_TO_READ_FILE, URL_BAD_URL,
                                                        URL_UNSUPPORTED_URL};

template <std::size_t N>
bool isOneOf(const std::array<std::int64_t, N>& codes, std::int64_t code) {
  return std::ranges::find(codes, code) != codes.end();
}

SendFailure ofStatus(std::int64_t status) {
  if (status == 409) return SendFailure::clash;
  if (status == 404 || status == 410) return SendFailure::noSuchItem;
  if (status == 401 || isOneOf(GATEWAY_STATUSES, status)) return SendFailure::outOfReach;
  return SendFailure::refused;
}

SendFailure ofFileProvider(const Error& error) {
  switch (error.code) {
    case NOT_AUTHENTICATED:
      return SendFailure::outOfReach;
    case NO_SUCH_ITEM:
      return SendFailure::noSuchItem;
    case SERVER_UNREACHABLE:
      // The extension's word for whatever went wrong with contents; the cause says more.
      return error.underlying ? sendFailureOf(*error.underlying) : SendFailure::outOfReach;
    default:
      return SendFailure::refused;
  }
}

}  // namespace

SendFailure sendFailureOf(const Error& error) {
  if (error.isIn(FILE_PROVIDER_ERROR_DOMAIN)) return ofFileProvider(error);
  if (error.is(COCOA_ERROR_DOMAIN, USER_CANCELLED) || error.is(URL_ERROR_DOMAIN, URL_CANCELLED))
    return SendFailure::cancelled;
  if (error.isIn(URL_ERROR_DOMAIN))
    return isOneOf(OWN_URL_ERRORS, error.code) ? SendFailure::refused : SendFailure::outOfReach;
  if (error.is(API_ERROR_DOMAIN, API_NOT_CONFIGURED)) return SendFailure::outOfReach;
  if (error.isIn(API_ERROR_DOMAIN)) return ofStatus(error.code);
  // An address that was handed out may have expired or gone; that is no word on the item.
  if (error.isIn(TRANSFER_ERROR_DOMAIN)) {
    const auto failure = ofStatus(error.code);
    return failure == SendFailure::noSuchItem ? SendFailure::refused : failure;
  }
  return SendFailure::refused;
}

}  // namespace vondle
