#include "service/notices/notice_rules.h"

#include <utility>

#include <fmt/format.h>

#include "fileprovider/error_codes.h"
#include "platform/visible_text.h"

namespace vondle {
namespace {

constexpr std::int64_t UNAUTHORIZED = 401;
constexpr std::int64_t INSUFFICIENT_STORAGE = 507;

// The first of the error and those behind it that is one of the two.
const Error* find(const Error& error, std::int64_t fileProviderCode, std::int64_t status) {
  for (const auto* each = &error; each; each = each->underlying.get())
    if (each->is(FILE_PROVIDER_ERROR_DOMAIN, fileProviderCode) || each->is(API_ERROR_DOMAIN, status) ||
        each->is(TRANSFER_ERROR_DOMAIN, status))
      return each;
  return nullptr;
}

// The extension's own words, where it has any.
std::string textOf(const Error& error, std::string_view otherwise) {
  return error.isIn(FILE_PROVIDER_ERROR_DOMAIN) && !error.description.empty() ? visibleText(error.description)
                                                                              : std::string(otherwise);
}

}  // namespace

std::optional<Notice> NoticeRules::failed(const Error& error, EditID edit, MonotonicTime now) {
  if (const auto* full = find(error, INSUFFICIENT_QUOTA, INSUFFICIENT_STORAGE)) {
    const bool isNew = refusedAsFull_.empty();
    refusedAsFull_.insert(edit);
    if (!isNew) return std::nullopt;
    return tell({NoticeCause::accountFull, textOf(*full, "Vondle is full.")}, now);
  }
  if (const auto* refused = find(error, NOT_AUTHENTICATED, UNAUTHORIZED)) {
    if (std::exchange(isKeyRefused_, true)) return std::nullopt;
    return tell({NoticeCause::keyRefused, textOf(*refused, "Vondle needs to be signed in again.")}, now);
  }
  return std::nullopt;
}

std::optional<Notice> NoticeRules::tell(Notice notice, MonotonicTime now) {
  const auto [told, isFirst] = told_.try_emplace(notice.cause, now);
  if (!isFirst && now - told->second < SOON) return std::nullopt;
  told->second = now;
  return notice;
}

bool NoticeRules::answered() {
  return std::exchange(isKeyRefused_, false);
}

bool NoticeRules::went(const std::function<bool(EditID)>& hasGone) {
  return std::erase_if(refusedAsFull_, hasGone) > 0 && refusedAsFull_.empty();
}

Notice NoticeRules::conflicted(const std::string& name, MonotonicTime now) {
  if (conflicts_ > 0 && now - lastConflict_ >= BURST) conflicts_ = 0;
  if (++conflicts_ == 1) firstConflict_ = visibleText(name);
  lastConflict_ = now;
  if (conflicts_ == 1)
    return {NoticeCause::conflictedCopy,
            fmt::format("“{}” was changed on the server too; what was changed here is kept beside it as a conflicted "
                        "copy.",
                        firstConflict_)};
  return {NoticeCause::conflictedCopy,
          fmt::format("{} files, “{}” the first, were changed on the server too; what was changed here is kept beside "
                      "each as a conflicted copy.",
                      conflicts_, firstConflict_)};
}

}  // namespace vondle
