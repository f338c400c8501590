#include "service/error_number.h"

#include <cerrno>

#include "fileprovider/error_codes.h"

namespace vondle {
namespace {

int ofFileProvider(std::int64_t code) {
  switch (code) {
    case NOT_AUTHENTICATED:
      return EACCES;
    case INSUFFICIENT_QUOTA:
      return EDQUOT;
    case SERVER_UNREACHABLE:
      return EHOSTUNREACH;
    case NO_SUCH_ITEM:
      return ENOENT;
    default:
      return EIO;
  }
}

int ofCocoa(std::int64_t code) {
  switch (code) {
    case FILE_NO_SUCH_FILE:
      return ENOENT;
    case USER_CANCELLED:
      return EINTR;
    case FEATURE_UNSUPPORTED:
      return EOPNOTSUPP;
    default:
      return EIO;
  }
}

int ofURLLoading(std::int64_t code) {
  switch (code) {
    case URL_CANCELLED:
      return EINTR;
    case URL_TIMED_OUT:
      return ETIMEDOUT;
    default:
      return EHOSTUNREACH;
  }
}

int ofAPI(std::int64_t code) {
  switch (code) {
    case API_NOT_CONFIGURED:
    case 401:
    case 403:
      return EACCES;
    case 404:
    case 410:
      return ENOENT;
    case 507:
      return EDQUOT;
    default:
      return EIO;
  }
}

}  // namespace

int errorNumber(const Error& error) {
  if (error.isIn(FILE_PROVIDER_ERROR_DOMAIN)) {
    // The server did not answer in time: the more telling of the two.
    if (error.code == SERVER_UNREACHABLE && error.underlying && error.underlying->is(URL_ERROR_DOMAIN, URL_TIMED_OUT))
      return ETIMEDOUT;
    // It was a file here, such as one on a full disk, and not the server at all.
    if (error.code == SERVER_UNREACHABLE && error.underlying && error.underlying->isIn(POSIX_ERROR_DOMAIN))
      return errorNumber(*error.underlying);
    return ofFileProvider(error.code);
  }
  if (error.isIn(COCOA_ERROR_DOMAIN)) return ofCocoa(error.code);
  if (error.isIn(URL_ERROR_DOMAIN)) return ofURLLoading(error.code);
  if (error.isIn(API_ERROR_DOMAIN)) return ofAPI(error.code);
  if (error.isIn(POSIX_ERROR_DOMAIN) && error.code > 0 && error.code < 4096) return static_cast<int>(error.code);
  return EIO;
}

}  // namespace vondle
