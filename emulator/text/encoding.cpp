#include "emulator/text/encoding.h"

#include <array>
#include <cctype>

#include <openssl/evp.h>
#include <strings.h>

namespace emulator {
namespace {

constexpr std::string_view kHexDigits = "0123456789ABCDEF";

int HexValue(char digit) {
  const char upper = static_cast<char>(std::toupper(static_cast<unsigned char>(digit)));
  const auto place = kHexDigits.find(upper);
  return place == std::string_view::npos ? -1 : static_cast<int>(place);
}

bool IsUnreserved(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '.' || c == '_' ||
         c == '~';
}

}  // namespace

std::string EncodeBase64(std::string_view bytes) {
  // EVP_EncodeBlock ends its output with a NUL, hence one more byte than the text has.
  std::string text((bytes.size() + 2) / 3 * 4 + 1, '\0');
  const int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                                     reinterpret_cast<const unsigned char*>(bytes.data()),
                                     static_cast<int>(bytes.size()));
  text.resize(static_cast<std::size_t>(length));
  return text;
}

std::optional<std::string> DecodeBase64(std::string_view text) {
  if (text.size() % 4 != 0) return std::nullopt;
  std::string bytes(text.size() / 4 * 3, '\0');
  const int length = EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                                     reinterpret_cast<const unsigned char*>(text.data()),
                                     static_cast<int>(text.size()));
  if (length < 0) return std::nullopt;
  std::size_t padding = 0;
  while (padding < 2 && padding < text.size() && text[text.size() - 1 - padding] == '=') ++padding;
  bytes.resize(static_cast<std::size_t>(length) - padding);
  return bytes;
}

std::string EncodeBase64Url(std::string_view bytes) {
  std::string text = EncodeBase64(bytes);
  for (char& c : text) {
    if (c == '+') c = '-';
    if (c == '/') c = '_';
  }
  text.erase(text.find_last_not_of('=') + 1);
  return text;
}

std::string PercentEncode(std::string_view text, std::string_view keep) {
  std::string encoded;
  encoded.reserve(text.size());
  for (const char c : text) {
    if (IsUnreserved(c) || keep.find(c) != std::string_view::npos) {
      encoded += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    encoded += '%';
    encoded += kHexDigits[byte >> 4U];
    encoded += kHexDigits[byte & 15U];
  }
  return encoded;
}

std::optional<std::string> PercentDecode(std::string_view text) {
  std::string decoded;
  decoded.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      decoded += text[i];
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = HexValue(text[i + 1]);
    const int low = HexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    decoded += static_cast<char>(high * 16 + low);
    i += 2;
  }
  return decoded;
}

FormFields ParseForm(std::string_view text) {
  FormFields fields;
  while (!text.empty()) {
    const auto end = text.find('&');
    std::string pair(text.substr(0, end));
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    for (char& c : pair) {
      if (c == '+') c = ' ';
    }
    const auto equals = pair.find('=');
    const auto name = PercentDecode(pair.substr(0, equals));
    const auto value =
        PercentDecode(equals == std::string::npos ? "" : std::string_view(pair).substr(equals + 1));
    if (name && value && !name->empty()) fields.emplace(*name, *value);
  }
  return fields;
}

std::string FieldOr(const FormFields& fields, std::string_view name, std::string_view fallback) {
  const auto found = fields.find(name);
  return found == fields.end() ? std::string(fallback) : found->second;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

std::string EscapeHtml(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&#39;";
        break;
      default:
        escaped += c;
    }
  }
  return escaped;
}

}  // namespace emulator
