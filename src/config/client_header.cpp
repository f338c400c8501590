#include "config/client_header.h"

#include <fmt/format.h>

namespace vondle {

std::string vondleClientHeader(const BundleInformation& bundle) {
  const auto name = bundle.text("CFBundleExecutable").or_else([&] { return bundle.text("CFBundleName"); });
  return fmt::format("macos/{} ({}); {}", bundle.text("CFBundleShortVersionString").value_or("0"),
                     bundle.text("CFBundleVersion").value_or("0"), name.value_or("Vondle"));
}

}  // namespace vondle
