#include "emulator/api/item_address.h"

#include "emulator/text/encoding.h"

namespace emulator {
namespace {

bool TakePrefix(std::string_view& text, std::string_view prefix) {
  if (!text.starts_with(prefix)) return false;
  text.remove_prefix(prefix.size());
  return true;
}

/// Takes "/segment" off the front; the segment ends at a slash or colon.
std::string TakeSegment(std::string_view& text) {
  if (!TakePrefix(text, "/")) return {};
  std::string segment(text.substr(0, text.find_first_of("/:")));
  text.remove_prefix(segment.size());
  return segment;
}

/// ":/names" up to the colon that ends it, if anything follows. False: no such part can be read.
bool TakePath(std::string_view& text, std::string& path) {
  if (!TakePrefix(text, ":")) return true;
  if (!text.empty() && text.front() != '/') return false;
  path = text.substr(0, text.find(':'));
  text.remove_prefix(path.size());
  TakePrefix(text, ":");
  return true;
}

std::string OperationName(std::string_view text) {
  TakePrefix(text, "/");
  if (text.ends_with('/')) text.remove_suffix(1);
  for (const std::string_view prefix : {"oneDrive.", "upload.", "action.", "view."}) {
    if (TakePrefix(text, prefix)) break;
  }
  return std::string(text);
}

/// ".../children/{name}" names a child as ":/{name}" does.
void MoveChildNameToPath(ItemAddress& address) {
  std::string_view operation = address.operation;
  if (!TakePrefix(operation, "children/")) return;
  const auto slash = operation.find('/');
  address.path += "/" + std::string(operation.substr(0, slash));
  address.operation =
      slash == std::string_view::npos ? "" : std::string(operation.substr(slash + 1));
}

bool BeginsWithRoot(std::string_view rest) {
  if (!TakePrefix(rest, "/root")) return false;
  return rest.empty() || rest.front() == '/' || rest.front() == ':';
}

}  // namespace

std::optional<ItemAddress> ParseItemAddress(std::string_view path) {
  // Names hold neither slashes nor colons, so that decoding first cannot change the structure.
  const auto decoded = PercentDecode(path);
  if (!decoded) return std::nullopt;
  std::string_view rest = *decoded;
  ItemAddress address;
  if (TakePrefix(rest, "/drives/")) {
    address.drive_id = rest.substr(0, rest.find('/'));
    rest.remove_prefix(address.drive_id.size());
    if (address.drive_id.empty()) return std::nullopt;
  } else if (!TakePrefix(rest, "/drive") || (!rest.empty() && rest.front() != '/')) {
    return std::nullopt;
  }
  if (BeginsWithRoot(rest)) {
    address.item_id = TakeSegment(rest);
  } else if (TakePrefix(rest, "/items")) {
    address.item_id = TakeSegment(rest);
    if (address.item_id.empty()) return std::nullopt;
  }
  if (!address.item_id.empty() && !TakePath(rest, address.path)) return std::nullopt;
  address.operation = OperationName(rest);
  MoveChildNameToPath(address);
  return address;
}

}  // namespace emulator
