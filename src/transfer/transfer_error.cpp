#include "transfer/transfer_error.h"

#include <fmt/format.h>

namespace vondle {
namespace {

constexpr std::int64_t NO_RESPONSE_CODE = -1;  // the code of http is the status, which is never negative

}  // namespace

std::optional<TransferError> TransferError::from(const Error& error) {
  if (!error.isIn(DOMAIN)) return std::nullopt;
  return error.code == NO_RESPONSE_CODE ? noResponse() : http(error.code);
}

TransferError::operator Error() const {
  if (kind == Kind::noResponse) return {DOMAIN, NO_RESPONSE_CODE, "no response"};
  return {DOMAIN, status, fmt::format("HTTP {}", status)};
}

}  // namespace vondle
