#include "emulator/api/download_links.h"

#include "emulator/text/encoding.h"

namespace emulator {
namespace {

constexpr std::string_view kSignature = "&tempauth=";

}  // namespace

std::string DownloadLinks::LinkTo(const Drive& drive, const Item& item) const {
  const auto expires = (Now() + lifetime_).time_since_epoch().count();
  // Quotes and lower-case escapes are what the real ones have, too: a client must not tidy them up.
  const std::string query =
      "UniqueId='" + item.id + "'&Drive=" + PercentEncode(drive.Id()) +
      "&Expires=" + std::to_string(expires) +
      "&Translate=false&Form=a%2bb&Generation=" + std::to_string(generation_) + "&ApiVersion=2.0";
  std::string link = base_ + "?" + query;
  link += kSignature;
  return link + signer_.Sign(query);
}

std::optional<DownloadLinks::Target> DownloadLinks::Read(const Request& request) const {
  const std::string_view query = request.Query();
  const auto mark = query.rfind(kSignature);
  if (mark == std::string_view::npos ||
      !signer_.Check(query.substr(0, mark), query.substr(mark + kSignature.size()))) {
    return std::nullopt;
  }
  const FormFields fields = ParseForm(query.substr(0, mark));
  if (std::stoll(FieldOr(fields, "Expires", "0")) <= Now().time_since_epoch().count() ||
      FieldOr(fields, "Generation", "") != std::to_string(generation_)) {
    return std::nullopt;
  }
  std::string item_id = FieldOr(fields, "UniqueId", "");
  std::erase(item_id, '\'');
  return Target{.drive_id = FieldOr(fields, "Drive", ""), .item_id = std::move(item_id)};
}

}  // namespace emulator
