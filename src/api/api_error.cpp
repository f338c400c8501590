#include "api/api_error.h"

namespace vondle {

// The code of badResponse is the status, which is never negative.
std::optional<APIError> APIError::from(const Error& error) {
  if (!error.isIn(DOMAIN)) return std::nullopt;
  if (error.code == API_NOT_CONFIGURED) return notConfigured();
  if (error.code == API_MALFORMED) return malformed();
  return badResponse(error.code);
}

APIError::operator Error() const {
  switch (kind) {
    case Kind::badResponse:
      return {DOMAIN, status};
    case Kind::notConfigured:
      return {DOMAIN, API_NOT_CONFIGURED};
    case Kind::malformed:
      return {DOMAIN, API_MALFORMED};
  }
  __builtin_unreachable();
}

}  // namespace vondle
