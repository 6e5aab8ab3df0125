// Helpers for text. Callable from any thread.
#pragma once

#include <regex>
#include <string>
#include <vector>

#include "onedrive4b/export.h"

/// The pieces of `text` between matches of `separator`. A separator at the start and consecutive
/// separators produce empty pieces; a separator at the end does not. A text without a separator,
/// even an empty text, is one piece.
ONEDRIVE4B_EXPORT std::vector<std::string> split(const std::string& text,
                                                 const std::regex& separator);
ONEDRIVE4B_EXPORT std::vector<std::wstring> split(const std::wstring& text,
                                                  const std::wregex& separator);

/// Formats like printf. "" if the C library reports an error for the arguments.
ONEDRIVE4B_EXPORT std::string string_format(std::string format, ...);

/// Replaces `from` in `text` with `to`, from left to right. The search continues at the start of
/// the inserted text plus the length of `from`, so a match may begin inside inserted text; a match
/// that lies wholly inside it is skipped. An empty `from` changes nothing.
ONEDRIVE4B_EXPORT void replace_all(std::string& text, const std::string& from,
                                   const std::string& to);
ONEDRIVE4B_EXPORT void replace_all(std::wstring& text, const std::wstring& from,
                                   const std::wstring& to);

ONEDRIVE4B_EXPORT bool ends_with(const std::string& text, const std::string& suffix);

/// Copies `source` without leading and trailing spaces (" " only) to `destination`, which must have
/// room for the result and its NUL and may be `source` itself.
ONEDRIVE4B_EXPORT void strip(char* source, char* destination);
