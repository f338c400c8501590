#include "api/api_error.h"

namespace vondle {
namespace {

// The code of badResponse is the status, which is never negative.
constexpr std::int64_t NOT_CONFIGURED_CODE = -1;
constexpr std::int64_t MALFORMED_CODE = -2;

}  // namespace

std::optional<APIError> APIError::from(const Error& error) {
  if (!error.isIn(DOMAIN)) return std::nullopt;
  if (error.code == NOT_CONFIGURED_CODE) return notConfigured();
  if (error.code == MALFORMED_CODE) return malformed();
  return badResponse(error.code);
}

APIError::operator Error() const {
  switch (kind) {
    case Kind::badResponse:
      return {DOMAIN, status};
    case Kind::notConfigured:
      return {DOMAIN, NOT_CONFIGURED_CODE};
    case Kind::malformed:
      return {DOMAIN, MALFORMED_CODE};
  }
  __builtin_unreachable();
}

}  // namespace vondle
