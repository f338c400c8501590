#pragma once

#include <string_view>

#include <curl/curl.h>

#include "base/error.h"

namespace vondle {

// What libcurl reports for a transfer, as an error of URL_ERROR_DOMAIN. `detail` is libcurl's own text about this
// failure; when empty its general one is taken.
Error urlError(CURLcode code, std::string_view detail);

}  // namespace vondle
