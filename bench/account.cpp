#include "account.h"

#include <iterator>

#include <fmt/format.h>

namespace vondle::bench {
namespace {

constexpr int FILES_IN_FIRST = 100'000;
constexpr int FILES_IN_OTHERS = 1'000;

}  // namespace

int filesIn(int folder) {
  return folder == 0 ? FILES_IN_FIRST : FILES_IN_OTHERS;
}

std::string listingReply(int folder, int files) {
  std::string body = fmt::format(R"({{"subpath":"folder-{:03}","role":"owner","folders":[],"files":[)", folder);
  body.reserve(static_cast<std::size_t>(files) * 200);
  for (int i = 0; i < files; ++i)
    fmt::format_to(std::back_inserter(body),
                   R"({}{{"id":"{:08x}-{:08x}","parent_id":"folder-{:03}","filename":"IMG_{:08}.jpg","size":{},)"
                   R"("key":"{:032x}","has_thumb":true,"mtime":"2024-05-01T10:20:30.{:03}Z","version":3}})",
                   i == 0 ? "" : ",", folder, i, folder, i, 1000 + i, folder * FILES_IN_FIRST + i, i % 1000);
  return body += "]}";
}

std::string topListingReply() {
  std::string body = R"({"subpath":"","role":"owner","folders":[)";
  for (int i = 0; i < FOLDERS; ++i)
    fmt::format_to(std::back_inserter(body),
                   R"({}{{"id":"folder-{:03}","parent_id":"root","name":"folder-{:03}",)"
                   R"("mtime":"2024-05-01T10:20:30.000Z","version":1}})",
                   i == 0 ? "" : ",", i, i);
  return body += R"(],"files":[]})";
}

}  // namespace vondle::bench
