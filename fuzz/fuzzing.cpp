#include "fuzzing.h"

#include "base/completion.h"
#include "platform/log.h"

namespace vondle {
namespace {

class NoLog final : public LogSink {
  void write(LogLevel, std::string_view, std::string_view, std::string_view) override {}
};

}  // namespace
}  // namespace vondle

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  static vondle::NoLog sink;
  vondle::setLogSink(&sink);
  vondle::setDroppedCompletionHandler([] { REQUIRE(!"a completion was dropped unanswered"); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vondle::fuzz({reinterpret_cast<const char*>(data), size});
  return 0;
}
