#include "upload/final_error.h"

#include <algorithm>
#include <array>
#include <cstdint>

#include "api/api_error.h"

namespace vondle {
namespace {

constexpr std::array<std::int64_t, 4> FINAL_STATUSES = {401, 403, 404, 507};

}  // namespace

bool isFinal(const Error& error) {
  if (error.is(URL_ERROR_DOMAIN, URL_CANCELLED) || error.is(COCOA_ERROR_DOMAIN, USER_CANCELLED)) return true;
  const auto api = APIError::from(error);
  if (!api) return false;
  if (api->kind == APIError::Kind::notConfigured) return true;
  return api->kind == APIError::Kind::badResponse &&
         std::ranges::find(FINAL_STATUSES, api->status) != FINAL_STATUSES.end();
}

}  // namespace vondle
