// The addresses of the REST service: which drive, which item, what of it.
//   /drive   /drives/{id}
//   .../root   .../items/{id}   each may go on with :/path/of/names and then :/operation
// Threads: pure. Lifetime: results own their text.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace emulator {

struct ItemAddress {
  std::string drive_id;   // empty: the caller's own
  std::string item_id;    // "root" or an id; empty: the drive itself is meant
  std::string path;       // from that item, decoded; empty: the item itself
  std::string operation;  // "children", "content", ...; empty: the item or drive itself
};

/// `path` is the part of a request's path behind the endpoint, still escaped. nullopt: it is no
/// address. An operation's documented prefixes ("oneDrive.", "upload.", ...) are taken off.
std::optional<ItemAddress> ParseItemAddress(std::string_view path);

}  // namespace emulator
