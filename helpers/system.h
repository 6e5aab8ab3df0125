// Directories and commands.
#pragma once

#include <string>

#include "onedrive4b/export.h"

/// Creates every directory along `path` ("/" and "\" both separate) with mode 0755. True also if
/// all of them exist already. Stops at the first failure, sets errno to ENOTDIR and returns false.
ONEDRIVE4B_EXPORT bool CreateDirectoryRecursively(std::string path);

/// Runs `command` with the shell and returns its standard output. Throws
/// std::runtime_error("popen() failed!") if it cannot be started.
ONEDRIVE4B_EXPORT std::string pexec(std::string command);
