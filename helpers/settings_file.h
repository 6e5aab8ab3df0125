// Reader of settings files: "[section]" headers and "name = value" lines.
#pragma once

#include "onedrive4b/export.h"

/// Copies the value of `key` in `section` of the file at `path` to `out`, which has room for `size`
/// bytes including the NUL; a longer value is truncated. If the value or the file does not exist,
/// copies `defaultValue` and returns false.
///
/// Section and key are compared without regard to case. A header is alone on its line. There are no
/// comments. Spaces around "=" are dropped; spaces at the end belong to the value. Callable from
/// any thread.
ONEDRIVE4B_EXPORT bool GetPrivateProfileString(char* section, char* key, char* defaultValue,
                                               char* out, int size, char* path);
