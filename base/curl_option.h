// SetCurlOption: one option of a libcurl handle, set with the type that libcurl reads.
//
// libcurl reads an option's value from variable arguments, and the checks of its header work in C
// only: an int in place of a long compiles without a warning. Here it does not compile.
#pragma once

#include <type_traits>

#include <curl/curl.h>

namespace base {

/// Whether libcurl reads a `Value` for `option`; the range of the number tells.
template <CURLoption option, typename Value>
constexpr bool IsCurlOptionType() {
  constexpr int kind = option / 10000 * 10000;
  using Target = std::remove_pointer_t<Value>;
  if constexpr (kind == CURLOPTTYPE_LONG) return std::is_same_v<Value, long>;
  if constexpr (kind == CURLOPTTYPE_OFF_T) return std::is_same_v<Value, curl_off_t>;
  if constexpr (kind == CURLOPTTYPE_FUNCTIONPOINT) return std::is_function_v<Target>;
  if constexpr (std::is_null_pointer_v<Value>) return true;
  return std::is_pointer_v<Value> && !std::is_function_v<Target>;
}

template <CURLoption option, typename Value>
[[nodiscard]] CURLcode SetCurlOption(CURL* curl, Value value) {
  static_assert(IsCurlOptionType<option, Value>());
  return curl_easy_setopt(curl, option, value);
}

}  // namespace base
