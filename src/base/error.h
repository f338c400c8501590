#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <string>
#include <string_view>

namespace vondle {

// Domains of errors that come from the platform; the file provider's own domain stands in fileprovider/error_codes.h.
inline constexpr std::string_view COCOA_ERROR_DOMAIN = "NSCocoaErrorDomain";
inline constexpr std::string_view URL_ERROR_DOMAIN = "NSURLErrorDomain";
inline constexpr std::string_view POSIX_ERROR_DOMAIN = "NSPOSIXErrorDomain";  // code: errno

// Codes of COCOA_ERROR_DOMAIN.
inline constexpr std::int64_t FILE_NO_SUCH_FILE = 260;
inline constexpr std::int64_t FILE_READ_UNKNOWN = 256;
inline constexpr std::int64_t USER_CANCELLED = 3072;
inline constexpr std::int64_t FEATURE_UNSUPPORTED = 3328;

// Codes of URL_ERROR_DOMAIN.
inline constexpr std::int64_t URL_UNKNOWN = -1;
inline constexpr std::int64_t URL_CANCELLED = -999;
inline constexpr std::int64_t URL_BAD_URL = -1000;
inline constexpr std::int64_t URL_TIMED_OUT = -1001;
inline constexpr std::int64_t URL_UNSUPPORTED_URL = -1002;
inline constexpr std::int64_t URL_CANNOT_FIND_HOST = -1003;
inline constexpr std::int64_t URL_CANNOT_CONNECT_TO_HOST = -1004;
inline constexpr std::int64_t URL_NETWORK_CONNECTION_LOST = -1005;
inline constexpr std::int64_t URL_HTTP_TOO_MANY_REDIRECTS = -1007;
inline constexpr std::int64_t URL_REDIRECT_TO_NON_EXISTENT_LOCATION = -1010;
inline constexpr std::int64_t URL_BAD_SERVER_RESPONSE = -1011;
inline constexpr std::int64_t URL_CANNOT_DECODE_RAW_DATA = -1015;
inline constexpr std::int64_t URL_REQUEST_BODY_STREAM_EXHAUSTED = -1021;  // the file to upload shrank
inline constexpr std::int64_t URL_FILE_DOES_NOT_EXIST = -1100;
inline constexpr std::int64_t URL_NO_PERMISSIONS_TO_READ_FILE = -1102;
inline constexpr std::int64_t URL_DATA_LENGTH_EXCEEDS_MAXIMUM = -1103;
inline constexpr std::int64_t URL_SECURE_CONNECTION_FAILED = -1200;
inline constexpr std::int64_t URL_SERVER_CERTIFICATE_UNTRUSTED = -1202;

// A failure as a value: who says so (domain), which one (code, meant within the domain), what a person reads
// (description, may be empty) and the failure behind it. Typed errors (APIError, TransferError) convert to it and are
// recovered from their domain and code, so that nothing is lost where an Error crosses a process border.
struct Error {
  std::string domain;
  std::int64_t code = 0;
  std::string description;
  std::shared_ptr<const Error> underlying;

  Error(std::string_view itsDomain, std::int64_t itsCode, std::string itsDescription = {});

  [[nodiscard]] bool is(std::string_view someDomain, std::int64_t someCode) const;
  [[nodiscard]] bool isIn(std::string_view someDomain) const { return domain == someDomain; }

  // The same error with another one behind it.
  [[nodiscard]] Error withUnderlying(Error cause) const;

  // Never empty: the description, else "domain error code".
  [[nodiscard]] std::string localizedDescription() const;

  // Equal when domain, code and description are; what lies behind does not count.
  friend bool operator==(const Error& a, const Error& b) {
    return a.domain == b.domain && a.code == b.code && a.description == b.description;
  }

  // What the operating system reports in errno, with strerror's text after what was tried.
  static Error posix(int errorNumber, std::string_view whatFailed);
};

template <class T>
using Result = std::expected<T, Error>;

inline std::unexpected<Error> failure(Error error) {
  return std::unexpected<Error>(std::move(error));
}

}  // namespace vondle
