#include "storage/entry_json.h"

#include <iterator>

#include <fmt/format.h>

#include "base/time.h"
#include "storage/thumb_kind.h"

namespace vondle::storage {
namespace {

// Members of one object: writes the commas.
class Members {
 public:
  explicit Members(std::string& out) : out_(out) { out_ += '{'; }
  ~Members() { out_ += '}'; }
  Members(const Members&) = delete;
  Members& operator=(const Members&) = delete;

  void add(std::string_view key, std::string_view text) {
    begin(key);
    appendJson(out_, text);
  }
  void add(std::string_view key, std::int64_t number) {
    begin(key);
    fmt::format_to(std::back_inserter(out_), "{}", number);
  }
  void addBoolean(std::string_view key, bool value) {
    begin(key);
    out_ += value ? "true" : "false";
  }

 private:
  void begin(std::string_view key) {
    out_ += first_ ? "\"" : ",\"";
    out_ += key;
    out_ += "\":";
    first_ = false;
  }

  std::string& out_;
  bool first_ = true;
};

std::string timeText(std::int64_t milliseconds) {
  // Half a millisecond more, so that cutting does not turn .123 into .122.
  return formatISO8601({(static_cast<double>(milliseconds) + 0.5) / 1000});
}

void addFacts(Members& members, const View& view) {
  if (!view.item.isFolder) {
    members.add("size", view.item.size);
    members.add("key", view.item.key);
    members.addBoolean("has_thumb", hasThumb(view.item));
  }
  if (!view.isSharedContainer()) members.add("mtime", timeText(view.item.modified));
  members.add("version", view.item.version);
  if (view.shared) members.addBoolean("shared", true);
  if (!view.ownerName.empty()) members.add("owner_name", view.ownerName);
}

}  // namespace

std::string Addresses::signedFor(std::string_view method, std::string_view path) const {
  return base + signer.sign(method, path, now);
}

std::string contentsPath(std::string_view key) {
  return fmt::format("/vondle/contents/{}", key);
}
std::string thumbPath(std::string_view key) {
  return fmt::format("/vondle/thumbs/{}", key);
}
std::string uploadPath(std::string_view key) {
  return fmt::format("/vondle/uploads/{}", key);
}
std::string partPath(std::string_view key, std::int64_t number) {
  return fmt::format("/vondle/uploads/{}/{}", key, number);
}

void appendJson(std::string& out, std::string_view text) {
  out += '"';
  for (const char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      fmt::format_to(std::back_inserter(out), "\\u{:04x}", static_cast<unsigned>(c));
    } else {
      out += c;
    }
  }
  out += '"';
}

void appendEntry(std::string& out, const View& view, const Addresses& addresses) {
  Members members(out);
  members.add("id", view.id);
  members.add("parent_id", view.parentId);
  members.add("name", view.name);
  members.addBoolean("is_folder", view.item.isFolder);
  members.add("path", view.path);
  addFacts(members, view);
  members.add("role", view.role);
  if (view.trashed) {
    members.addBoolean("trashed", true);
    members.add("restore_path", view.path);
  }
  if (view.item.isFolder) return;
  members.add("download_url", addresses.signedFor("GET", contentsPath(view.item.key)));
  if (view.item.thumb == Thumb::stored) members.add("thumb_url", addresses.signedFor("GET", thumbPath(view.item.key)));
}

void appendLiteEntry(std::string& out, const View& view, const View& folder) {
  Members members(out);
  members.add("id", view.id);
  members.add("parent_id", view.parentId);
  members.add(view.item.isFolder ? "name" : "filename", view.name);
  addFacts(members, view);
  if (view.role != folder.role) members.add("role", view.role);
}

}  // namespace vondle::storage
