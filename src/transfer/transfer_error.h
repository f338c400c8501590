#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

#include "base/error.h"
#include "fileprovider/error_codes.h"

namespace vondle {

// What the transfer engine reports beside transport errors, described as "HTTP 503" or "no response". Travels as an
// Error of DOMAIN and is recovered from it.
struct TransferError {
  enum class Kind {
    http,        // a status outside 200 to 299; 0 when there was no HTTP response
    noResponse,  // the answer lacks what it must hold, or its length is not the announced one
  };

  static constexpr std::string_view DOMAIN = TRANSFER_ERROR_DOMAIN;

  Kind kind;
  std::int64_t status = 0;  // of http

  static constexpr TransferError http(std::int64_t status) { return {Kind::http, status}; }
  static constexpr TransferError noResponse() { return {Kind::noResponse}; }

  // None for an error of another domain.
  static std::optional<TransferError> from(const Error& error);
  operator Error() const;  // NOLINT(google-explicit-constructor): a TransferError is an Error

  friend bool operator==(const TransferError&, const TransferError&) = default;
};

}  // namespace vondle
