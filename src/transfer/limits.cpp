#include "transfer/limits.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

#include <fmt/format.h>

#include "base/json.h"
#include "base/shared_instance.h"
#include "config/plog.h"

namespace vondle {
namespace {

constexpr Duration CHECK_INTERVAL = seconds(1.0);
constexpr std::int64_t DEFAULT_MAX_CONCURRENT = 5;
constexpr double BYTES_PER_KILOBYTE = 1024;
constexpr double LARGEST_WHOLE_NUMBER = 9.2e18;

bool truth(const json::Object& object, std::string_view key) {
  return json::boolean(object, key).value_or(json::number(object, key).value_or(0) != 0);
}

std::string inWords(double kilobytes) {
  if (kilobytes <= 0) return "unlimited";
  if (kilobytes > LARGEST_WHOLE_NUMBER) {
    std::fputs("vondle: a bandwidth limit in the configuration is too large\n", stderr);
    std::abort();
  }
  return fmt::format("{} kB/s", static_cast<std::int64_t>(kilobytes));
}

}  // namespace

struct Limits::Settings {
  explicit Settings(const json::Object& object)
      : downloadKilobytes(json::number(object, "max_download_kbps").value_or(0)),
        uploadKilobytes(json::number(object, "max_upload_kbps").value_or(0)),
        paused(truth(object, "transfers_paused")),
        maxConcurrent(json::integer(object, "max_concurrent_transfers").value_or(0)) {
    if (maxConcurrent <= 0) maxConcurrent = DEFAULT_MAX_CONCURRENT;
  }

  double downloadKilobytes;
  double uploadKilobytes;
  bool paused;
  std::int64_t maxConcurrent;
};

Limits& Limits::shared() {
  return SharedInstance<Limits>::current();
}

Limits::Limits(const Clock& clock, Files& files, std::string configPath)
    : download(clock),
      upload(clock),
      clock_(clock),
      files_(files),
      configPath_(std::move(configPath)),
      maxConcurrent_(DEFAULT_MAX_CONCURRENT) {}

void Limits::refresh() {
  MutexLock hold(lock_);
  if (!isDue()) return;
  const auto settings = readChanged();
  if (!settings) return;
  apply(*settings);
  hold.unlock();
  plog.log("bandwidth limits: down %{public}@, up %{public}@%{public}@", inWords(settings->downloadKilobytes),
           inWords(settings->uploadKilobytes), settings->paused ? " (transfers paused)" : "");
}

bool Limits::isDue() {
  const MonotonicTime now = clock_.monotonic();
  if (lastCheck_ && now - *lastCheck_ <= CHECK_INTERVAL) return false;
  lastCheck_ = now;
  return true;
}

std::optional<Limits::Settings> Limits::readChanged() {
  const auto modified = files_.modificationTime(configPath_);
  if (modified == lastModification_) return std::nullopt;
  lastModification_ = modified;  // before reading: a broken file is not read again until it changes
  const auto text = files_.read(configPath_);
  if (!text) return std::nullopt;
  const auto object = json::parseObject(*text);
  if (!object) return std::nullopt;
  return Settings(*object);
}

void Limits::apply(const Settings& settings) {
  maxConcurrent_ = settings.maxConcurrent;
  paused_ = settings.paused;
  uploadUnlimited_ = settings.uploadKilobytes == 0;
  download.setRate(settings.downloadKilobytes * BYTES_PER_KILOBYTE);
  upload.setRate(settings.uploadKilobytes * BYTES_PER_KILOBYTE);
}

}  // namespace vondle
