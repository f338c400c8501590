#include "storage/names.h"

namespace vondle::storage {

bool isUTF8(std::string_view text) {
  for (std::size_t i = 0; i < text.size();) {
    const auto byte = [&](std::size_t at) { return at < text.size() ? static_cast<unsigned char>(text[at]) : 0U; };
    const unsigned first = byte(i);
    std::size_t length = 1;
    unsigned value = first;
    if (first >= 0xF0 && first < 0xF5)
      length = 4, value = first & 0x07;
    else if (first >= 0xE0 && first < 0xF0)
      length = 3, value = first & 0x0F;
    else if (first >= 0xC2 && first < 0xE0)
      length = 2, value = first & 0x1F;
    else if (first >= 0x80)
      return false;
    for (std::size_t k = 1; k < length; ++k) {
      if ((byte(i + k) & 0xC0) != 0x80) return false;
      value = value << 6 | (byte(i + k) & 0x3F);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    const bool surrogate = value >= 0xD800 && value < 0xE000;
    if (overlong || surrogate || value > 0x10FFFF) return false;
    i += length;
  }
  return true;
}

Answer<void> checkName(std::string_view name) {
  if (name.empty()) return refuse(400, "a name is empty");
  if (name == "." || name == "..") return refuse(400, "\".\" and \"..\" are no names");
  if (name.size() > MAX_NAME_BYTES) return refuse(400, "a name is longer than 255 bytes");
  if (name.find('/') != std::string_view::npos) return refuse(400, "a name holds a \"/\"");
  if (name.find('\0') != std::string_view::npos) return refuse(400, "a name holds a zero byte");
  if (!isUTF8(name)) return refuse(400, "a name is not UTF-8");
  return {};
}

Answer<std::vector<std::string>> splitPath(std::string_view path) {
  std::vector<std::string> names;
  if (path.empty()) return names;
  for (;;) {
    const auto slash = path.find('/');
    const auto name = path.substr(0, slash);
    if (auto valid = checkName(name); !valid) return refuse(std::move(valid.error()));
    names.emplace_back(name);
    if (names.size() > MAX_DEPTH) return refuse(400, "a path has more than 1000 components");
    if (slash == std::string_view::npos) return names;
    path.remove_prefix(slash + 1);
  }
}

Answer<std::pair<std::string, std::string>> splitLast(std::string_view path) {
  auto names = splitPath(path);
  if (!names) return refuse(std::move(names.error()));
  if (names->empty()) return refuse(400, "the path is empty");
  const auto slash = path.rfind('/');
  return std::pair(slash == std::string_view::npos ? std::string() : std::string(path.substr(0, slash)), names->back());
}

Answer<std::string> folderOfPrefix(std::string_view prefix) {
  if (!prefix.ends_with('/')) return refuse(400, "a folder's prefix ends with \"/\"");
  prefix.remove_suffix(1);
  if (prefix.empty()) return refuse(400, "the top folder can be neither moved nor deleted");
  if (auto names = splitPath(prefix); !names) return refuse(std::move(names.error()));
  return std::string(prefix);
}

std::string joinPath(std::string_view folder, std::string_view name) {
  std::string path(folder);
  if (!path.empty()) path += '/';
  path += name;
  return path;
}

}  // namespace vondle::storage
