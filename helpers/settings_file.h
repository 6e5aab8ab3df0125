// Reader of settings files: "[section]" headers and "name = value" lines.
#pragma once

#include "onedrive4b/export.h"

/// Copies the value of `key` in `section` of the file at `path` to `out`, which takes `size` bytes
/// with the NUL; too long a value is cut. Without such a value, or such a file, copies
/// `defaultValue` and returns false.
///
/// Section and key are compared without regard to case. A header stands alone on its line; there
/// are no comments; spaces around "=" are dropped, spaces at the end belong to the value. Callable
/// from any thread.
ONEDRIVE4B_EXPORT bool GetPrivateProfileString(char* section, char* key, char* defaultValue,
                                               char* out, int size, char* path);
