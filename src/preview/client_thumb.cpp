#include "preview/client_thumb.h"

#include <utility>

#include "base/shared_instance.h"
#include "config/make_url.h"
#include "preview/preview_upload.h"

namespace vondle {
namespace {

constexpr std::int64_t MAX_REPLY_BYTES = 64 << 10;  // nobody reads it

}  // namespace

ClientThumb::ClientThumb(const Clock& clock, Scheduler& scheduler, Files& files, RandomSource& random,
                         URLLoading& loading, PreviewRenderer& renderer)
    : clock_(clock),
      queue_(scheduler.global()),
      maker_(files, random, renderer),
      session_(std::make_shared<URLDataClient>(loading, URLSessionConfiguration{}, MAX_REPLY_BYTES)),
      work_(queue_, maxConcurrentOperations) {}

ClientThumb& ClientThumb::shared() {
  return SharedInstance<ClientThumb>::current();
}

void ClientThumb::send(std::string file, std::string name, const std::optional<std::string>& to,
                       Completion<bool> completion) {
  auto address = enabled && to ? makeURL(*to) : std::nullopt;
  if (!address) return std::move(completion)(false);
  work_.add([&clock = clock_, &queue = queue_, maker = maker_, session = std::weak_ptr(session_),
             job = PreviewUpload::Job{std::move(file), std::move(name), std::move(*address)},
             completion = std::move(completion)](Completion<> done) mutable {
    auto finished = [done = std::move(done), completion = std::move(completion)](bool stored) mutable {
      std::move(done)();
      std::move(completion)(stored);
    };
    std::make_shared<PreviewUpload>(clock, queue, maker, std::move(session), std::move(job), std::move(finished))
        ->start();
  });
}

void ClientThumb::make(const std::string& file, std::string_view, PreviewCompletion completion) {
  maker_.make(file, std::move(completion));
}

}  // namespace vondle
