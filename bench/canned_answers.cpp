#include "bench/canned_answers.h"

#include <array>
#include <cstdio>

namespace bench {
namespace {

constexpr const char* kSite = "/personal/demo_contoso_example";
constexpr const char* kPerson = R"({"user":{"displayName":"Demo User",)"
                                R"("id":"7c3e1b1e-52f0-4b0e-9d5c-0a9e6ad1f3b2"}})";

std::string Hexadecimal(std::int64_t number) {
  std::array<char, 17> text{};
  std::snprintf(text.data(), text.size(), "%08llX", static_cast<unsigned long long>(number));
  return text.data();
}

std::string Times() {
  return R"("createdDateTime":"2026-03-14T09:26:53Z",)"
         R"("lastModifiedDateTime":"2026-08-09T17:05:41Z")";
}

std::string Member(const char* name, const std::string& text) {
  return std::string("\"").append(name).append("\":\"").append(text).append("\",");
}

}  // namespace

std::string ItemText(const std::string& origin, std::int64_t number) {
  const bool folder = number % 5 == 4;
  const std::string unique = Hexadecimal(number) + "-4c1d-4f7a-9b0e-5d2f6c8a1e37";
  const std::string name = "Quarterly report " + std::to_string(number) + (folder ? "" : ".pdf");
  std::string text = "{";
  if (!folder) {
    text += Member("@content.downloadUrl", origin + kSite +
                                               "/_layouts/15/download.aspx?UniqueId=" + unique +
                                               "&tempauth=v1.eyJzaXRlaWQiOiI3YzNlMWIxZSJ9");
  }
  text.append("\"createdBy\":").append(kPerson).append(",");
  text += Member("eTag", "\\\"{" + unique + "},3\\\"");
  text += Member("cTag", "\\\"c:{" + unique + "},2\\\"");
  text += Member("id", "01BYE5RZ6QN3ZWBTUFOFD3" + Hexadecimal(number));
  text.append("\"lastModifiedBy\":").append(kPerson).append(",");
  text += Times() + "," + Member("name", name);
  text += R"("parentReference":{"driveId":"b!t18F8ybsHUq1z3LTz8xvZqP8zaSWjkFNhsME-Fepo75dTf9v",)"
          R"("driveType":"business","id":"01BYE5RZ56Y2GOVW7725BZO354PWSELRRZ",)"
          R"("path":"/drive/root:/Documents/Reports"},)";
  text += Member("webUrl", origin + kSite + "/Documents/Reports/Quarterly%20report%20" +
                               std::to_string(number));
  text += "\"fileSystemInfo\":{" + Times() + "},";
  text += "\"size\":" + std::to_string(folder ? 0 : 10000 + number) + ",";
  text += folder ? R"("folder":{"childCount":7}})"
                 : R"("file":{"mimeType":"application/pdf",)"
                   R"("hashes":{"quickXorHash":"dF5GC7lcTNrHhmVVCYcAcAwUBgY="}}})";
  return text;
}

std::string AccountText() {
  return std::string(R"({"id":"b!t18F8ybsHUq1z3LTz8xvZqP8zaSWjkFNhsME","driveType":"business",)") +
         "\"owner\":" + kPerson +
         R"(,"quota":{"deleted":0,"remaining":1099503239168,"state":"normal",)"
         R"("total":1099511627776,"used":8388608}})";
}

std::string DiscoveryText(const std::string& origin) {
  return R"({"value":[{"capability":"MyFiles","serviceApiVersion":"v2.0",)"
         R"("serviceResourceId":")" +
         origin + R"(/","serviceEndpointUri":")" + origin + kSite + R"(/_api/v2.0"}]})";
}

std::string SessionText(const std::string& origin) {
  return R"({"uploadUrl":")" + origin + kSite +
         R"(/_api/v2.0/upload?tempauth=v1.eyJzaXRlaWQiOiI3YzNlMWIxZSJ9",)"
         R"("expirationDateTime":"2026-12-01T00:00:00Z","nextExpectedRanges":["0-"]})";
}

std::string PageItems(const std::string& origin, std::int64_t count) {
  std::string text;
  for (std::int64_t number = 0; number < count; ++number) {
    if (number > 0) text += ',';
    text += ItemText(origin, number);
  }
  return text;
}

std::string PageHead(const std::string& origin, const std::string& link) {
  std::string text = "{\"@odata.context\":\"" + origin + kSite + "/_api/v2.0/$metadata#items\",";
  if (!link.empty()) text += Member("@odata.nextLink", link);
  return text + "\"value\":[";
}

}  // namespace bench
