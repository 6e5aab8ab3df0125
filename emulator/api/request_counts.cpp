#include "emulator/api/request_counts.h"

#include "emulator/api/item_address.h"

namespace emulator {
namespace {

using Kind = std::uint64_t CountsByKind::*;

Kind KindOfReading(const ItemAddress& address) {
  if (address.operation == "children" || address.operation == "sharedWithMe") {
    return &CountsByKind::list;
  }
  if (address.operation == "content") return &CountsByKind::download_link;
  if (!address.operation.empty()) return &CountsByKind::other;
  return address.item_id.empty() ? &CountsByKind::drive : &CountsByKind::item;
}

Kind KindOfChanging(const ItemAddress& address) {
  if (address.operation == "children" || address.operation.empty()) return &CountsByKind::change;
  if (address.operation == "content" || address.operation.ends_with("Session")) {
    return &CountsByKind::upload;
  }
  return &CountsByKind::other;
}

}  // namespace

Kind KindOf(const Request& request, std::string_view endpoint_path) {
  const std::string_view path = request.Path();
  const bool signs_in = path.find("/oauth2/") != std::string_view::npos ||
                        path.starts_with("/discovery/") || path == "/v1.0/me/drive";
  if (signs_in && !path.starts_with(endpoint_path)) {
    return &CountsByKind::sign_in;
  }
  if (path.ends_with("/download.aspx")) return &CountsByKind::download;
  if (path.ends_with("/uploadSession")) return &CountsByKind::upload;
  if (!path.starts_with(endpoint_path)) return &CountsByKind::other;
  const auto address = ParseItemAddress(path.substr(endpoint_path.size()));
  if (!address) return &CountsByKind::other;
  const bool reads = request.method == "GET" || request.method == "HEAD";
  return reads ? KindOfReading(*address) : KindOfChanging(*address);
}

Kind RequestCounter::Add(const Request& request) {
  const Kind kind = KindOf(request, endpoint_path_);
  const std::lock_guard lock(mutex_);
  ++(counts_.*kind);
  return kind;
}

CountsByKind RequestCounter::Get() const {
  const std::lock_guard lock(mutex_);
  return counts_;
}

void RequestCounter::Clear() {
  const std::lock_guard lock(mutex_);
  counts_ = {};
}

}  // namespace emulator
