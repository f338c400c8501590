#include "platform/markup_text.h"

#include <glib.h>

#include <memory>

namespace vondle {

std::string markupText(std::string_view text) {
  const std::unique_ptr<gchar, decltype(&g_free)> escaped(
      g_markup_escape_text(text.data(), static_cast<gssize>(text.size())), &g_free);
  return escaped.get();
}

}  // namespace vondle
