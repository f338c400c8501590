#include "service/control/control_text.h"

#include <cerrno>

#include "base/utf8.h"
#include "fileprovider/error_codes.h"
#include "platform/visible_text.h"
#include "service/control/control_protocol.h"
#include "service/error_number.h"

namespace vondle {

std::string controlText(std::string_view bytes) {
  return isUTF8(bytes) ? std::string(bytes) : visibleText(bytes);
}

std::string_view controlCode(const Error& error) {
  if (error.is(API_ERROR_DOMAIN, API_NOT_CONFIGURED)) return control::CODE_NOT_CONFIGURED;
  switch (errorNumber(error)) {
    case ENOENT:
      return control::CODE_NO_SUCH_ITEM;
    case EACCES:
      return control::CODE_NOT_AUTHENTICATED;
    case EHOSTUNREACH:
    case ETIMEDOUT:
      return control::CODE_UNREACHABLE;
    default:
      return control::CODE_FAILED;
  }
}

}  // namespace vondle
