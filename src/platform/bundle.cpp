#include "platform/bundle.h"

namespace vondle {

BundleInformation bundleInformation() {
  return BundleInformation({{"CFBundleShortVersionString", VONDLE_VERSION},
                            {"CFBundleVersion", VONDLE_BUILD_NUMBER},
                            {"CFBundleExecutable", "VondleFileProvider"}});
}

}  // namespace vondle
