#include "base/error.h"

#include <cstring>
#include <utility>

#include <fmt/format.h>

namespace vondle {

Error::Error(std::string_view itsDomain, std::int64_t itsCode, std::string itsDescription)
    : domain(itsDomain), code(itsCode), description(std::move(itsDescription)) {}

bool Error::is(std::string_view someDomain, std::int64_t someCode) const {
  return domain == someDomain && code == someCode;
}

Error Error::withUnderlying(Error cause) const {
  Error copy = *this;
  copy.underlying = std::make_shared<const Error>(std::move(cause));
  return copy;
}

std::string Error::localizedDescription() const {
  return description.empty() ? fmt::format("{} error {}", domain, code) : description;
}

Error Error::posix(int errorNumber, std::string_view whatFailed) {
  char buffer[128];
  return {POSIX_ERROR_DOMAIN, errorNumber,
          fmt::format("{}: {}", whatFailed, strerror_r(errorNumber, buffer, sizeof buffer))};
}

}  // namespace vondle
