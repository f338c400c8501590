#pragma once

#include <cstddef>
#include <string_view>

// The control socket: a Unix stream socket in the runtime folder, for the same user's processes (and root's). A client
// sends one JSON object per line, {"command": NAME, …}, and gets for each any number of lines with "progress" and then
// exactly one last line: {"result": {…}} or {"error": TEXT, "code": ONE OF THE CODES BELOW}. One request at a time per
// connection; what is sent meanwhile waits. Closing the connection abandons the request.
namespace vondle::control {

inline constexpr std::size_t MAX_LINE = 1 << 20;  // bytes, line break included; a longer line ends the connection
inline constexpr std::size_t MAX_CLIENTS = 32;

inline constexpr std::string_view CODE_MALFORMED = "malformed";  // not a request
inline constexpr std::string_view CODE_FAILED = "failed";        // anything else
inline constexpr std::string_view CODE_NO_SUCH_ITEM = "no-such-item";
inline constexpr std::string_view CODE_UNREACHABLE = "unreachable";  // the server
inline constexpr std::string_view CODE_NOT_AUTHENTICATED = "not-authenticated";
inline constexpr std::string_view CODE_NOT_CONFIGURED = "not-configured";
inline constexpr std::string_view CODE_UNFINISHED = "unfinished";  // time was up, work is left
inline constexpr std::string_view CODE_BUSY = "busy";              // too many clients

}  // namespace vondle::control
