#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vondle {

// The server's names are texts of any kind; a name in a folder has 1 to 255 bytes, is neither "." nor "..", holds no
// slash and no NUL, is UTF-8 and stands there once. A server name that is all that is its own local name. Any other
// gets one that starts with LOCAL_NAME_MARK, followed by the name with each byte that cannot stand, and each percent
// sign, written as % and two hexadecimal digits:
//   "a/b"  %=a%2Fb        ".."  %=..        ""  %=
// A name that is too long is cut, and one that stands twice is told apart, by a tag before the extension, %# and 16
// hexadecimal digits made of the item's identifier; only the tree knows the server name of one that was cut.
inline constexpr std::string_view LOCAL_NAME_MARK = "%=";
inline constexpr std::size_t MAX_LOCAL_NAME = 255;  // bytes

enum class NameProblem {
  empty,
  dots,       // "." or ".."
  separator,  // holds a slash or NUL
  tooLong,
  notUTF8,
  reserved,   // starts with LOCAL_NAME_MARK
  duplicate,  // another item of the folder has the name
};

// None: the name can stand as it is.
std::optional<NameProblem> nameProblem(std::string_view serverName);

// The local name, the same everywhere and always.
std::string localName(std::string_view serverName, std::string_view identifier);

// The local name of one that cannot have localName because another item has it. Attempts count from 0; each gives
// another name.
std::string distinctLocalName(std::string_view serverName, std::string_view identifier, unsigned attempt);

// The server name that a local name stands for; absent for names that were cut or tagged, and for texts that start with
// LOCAL_NAME_MARK without being such a name, or are too long for any. For a name that a program chooses for a new item.
std::optional<std::string> serverName(std::string_view localName);

}  // namespace vondle
