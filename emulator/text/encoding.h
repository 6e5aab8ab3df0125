// Text of the wire: base64, percent-encoding, HTML forms, and what is equal in another case.
// Threads: all functions are pure. Lifetime: results own their bytes.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace emulator {

std::string EncodeBase64(std::string_view bytes);
std::optional<std::string> DecodeBase64(std::string_view text);

/// RFC 4648 section 5, without padding.
std::string EncodeBase64Url(std::string_view bytes);

/// Escapes everything but RFC 3986 unreserved characters and those in `keep`.
std::string PercentEncode(std::string_view text, std::string_view keep = "");

/// nullopt: an escape is cut off or not hexadecimal.
std::optional<std::string> PercentDecode(std::string_view text);

using FormFields = std::map<std::string, std::string, std::less<>>;

/// Reads "a=1&b=2", with '+' for a space. Of a repeated name the first counts. Fields with broken
/// escapes are left out.
FormFields ParseForm(std::string_view text);

std::string FieldOr(const FormFields& fields, std::string_view name, std::string_view fallback);

/// ASCII letters only: header names, tokens, media types.
bool EqualsIgnoringCase(std::string_view a, std::string_view b);

/// For text shown inside an HTML page.
std::string EscapeHtml(std::string_view text);

}  // namespace emulator
