// All log lines of the module go through this function.
#pragma once

#include <cstdarg>

#include "onedrive4b/entry_points.h"

/// Passes one line to `log`, unformatted: the host renders format and arguments. Null drops the
/// line. Texts passed for "%s" must not be null. Callable from any thread; a logger that throws is
/// ignored, since no operation may fail because its log could not be written.
__attribute__((format(printf, 3, 4))) static inline void __LOG__A(ILog* log, LOGLEVEL level,
                                                                  const char* format,
                                                                  ...) noexcept {
  if (log == nullptr) return;
  std::va_list arguments;
  va_start(arguments, format);
  try {
    log->Write(level, format, arguments);
  } catch (...) {
  }
  va_end(arguments);
}
