#include "emulator/http/request_body.h"

#include <array>

#include "base/json_text.h"
#include "emulator/http/service_error.h"

namespace emulator {

std::string ReadText(Request& request) {
  constexpr std::size_t kLimit = std::size_t{1} << 20U;
  std::string text;
  std::array<char, 16384> buffer;
  while (const std::size_t count = request.body.Read(buffer)) {
    if (text.size() + count > kLimit) {
      throw ServiceError(413, "invalidRequest", "The request is too large.");
    }
    text.append(buffer.data(), count);
  }
  return text;
}

FormFields ReadForm(Request& request) {
  constexpr std::string_view kForm = "application/x-www-form-urlencoded";
  const std::string type = request.Header("Content-Type").value_or("");
  const std::string text = ReadText(request);
  if (!EqualsIgnoringCase(std::string_view(type).substr(0, kForm.size()), kForm)) return {};
  return ParseForm(text);
}

Json::Value ReadJsonObject(Request& request) {
  const std::string text = ReadText(request);
  if (text.empty()) return Json::objectValue;
  auto value = base::ParseJson(text);
  if (!value || !value->isObject()) throw InvalidRequest("The request body is no JSON object.");
  return *std::move(value);
}

}  // namespace emulator
