#pragma once

#include "base/error.h"

namespace vondle {

// What a program that reads the folder sees in errno for an error of the extension's: EACCES not signed in or refused,
// EDQUOT no room in the account, ETIMEDOUT and EHOSTUNREACH the server, ENOENT no such item, EINTR cancelled,
// EOPNOTSUPP not possible, the number itself for errors of the operating system, EIO for everything else.
int errorNumber(const Error& error);

}  // namespace vondle
