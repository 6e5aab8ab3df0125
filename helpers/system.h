// Directories and commands.
#pragma once

#include <string>

#include "onedrive4b/export.h"

/// Creates every directory along `path` ("/" and "\" both separate) with mode 0755. True also when
/// all exist already. On failure stops there, sets errno to ENOTDIR and returns false.
ONEDRIVE4B_EXPORT bool CreateDirectoryRecursively(std::string path);

/// Runs `command` with the shell and returns what it writes to standard output. Throws
/// std::runtime_error("popen() failed!") when it cannot be started.
ONEDRIVE4B_EXPORT std::string pexec(std::string command);
