#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "base/error.h"
#include "fileprovider/error_codes.h"

namespace vondle {

// What the API client reports beside transport errors. It has no text of its own: where a user sees it, it goes through
// providerError. Travels as an Error of DOMAIN and is recovered from it.
struct APIError {
  enum class Kind {
    badResponse,    // not a usable success; see status
    notConfigured,  // no configuration, or no usable server address in it
    malformed,      // the address could not be formed, or a reply lacks what it must hold
  };

  static constexpr std::string_view DOMAIN = API_ERROR_DOMAIN;

  Kind kind;
  std::int64_t status = 0;  // of badResponse: the HTTP status, 0 when there was no HTTP response

  static constexpr APIError badResponse(std::int64_t status) { return {Kind::badResponse, status}; }
  static constexpr APIError notConfigured() { return {Kind::notConfigured}; }
  static constexpr APIError malformed() { return {Kind::malformed}; }

  // None for an error of another domain.
  static std::optional<APIError> from(const Error& error);
  operator Error() const;  // NOLINT(google-explicit-constructor): an APIError is an Error

  friend bool operator==(const APIError&, const APIError&) = default;
};

}  // namespace vondle
