// Typed setter of libcurl options.
#pragma once

#include <cstddef>
#include <type_traits>

#include <curl/curl.h>

namespace onedrive4b {

/// Sets an option with exactly the type that libcurl reads from its variable arguments: long,
/// curl_off_t, or a pointer. libcurl's own checks of this are for C only; in C++ an int would
/// compile and be read as a long. Results are ignored: libcurl refuses a null handle and unknown
/// options without an effect.
template <typename Value>
void SetOption(CURL* handle, CURLoption option, Value value) {
  static_assert(std::is_same_v<Value, long> || std::is_same_v<Value, curl_off_t> ||
                    std::is_pointer_v<Value> || std::is_null_pointer_v<Value>,
                "libcurl reads long, curl_off_t or a pointer");
  if constexpr (std::is_null_pointer_v<Value>) {
    curl_easy_setopt(handle, option, static_cast<void*>(nullptr));
  } else {
    curl_easy_setopt(handle, option, value);
  }
}

/// Reads a number or text of the last transfer; `fallback` if libcurl has none.
template <typename Value>
Value GetInfo(CURL* handle, CURLINFO info, Value fallback) {
  Value value = fallback;
  return curl_easy_getinfo(handle, info, &value) == CURLE_OK ? value : fallback;
}

}  // namespace onedrive4b
