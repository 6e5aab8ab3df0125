#include "support/text.h"

#include <codecvt>
#include <locale>
#include <stdexcept>

namespace {

using Utf8Converter = std::wstring_convert<std::codecvt_utf8<wchar_t>>;

}  // namespace

std::wstring s2ws(const std::string& text) {
  Utf8Converter converter;
  std::wstring wide = converter.from_bytes(text);
  // The converter treats an incomplete character at the end as one that will continue.
  if (converter.converted() != text.size()) throw std::range_error("s2ws: incomplete character");
  return wide;
}

std::string ws2s(const std::wstring& text) { return Utf8Converter().to_bytes(text); }

namespace onedrive4b {

std::vector<std::string_view> SplitAtSlash(std::string_view text) {
  std::vector<std::string_view> pieces;
  for (std::size_t slash = 0; (slash = text.find('/')) != std::string_view::npos;) {
    pieces.push_back(text.substr(0, slash));
    text.remove_prefix(slash + 1);
  }
  if (!text.empty() || pieces.empty()) pieces.push_back(text);
  return pieces;
}

}  // namespace onedrive4b
