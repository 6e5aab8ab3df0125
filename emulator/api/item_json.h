// Drives and items as JSON resources ("Item resource type", "Drive resource type" in the public
// documentation).
// Threads: callable from any. Lifetime: results own their memory; the links must outlive ItemJson.
#pragma once

#include <string>

#include <json/value.h>

#include "emulator/api/download_links.h"
#include "emulator/drive/drive.h"

namespace emulator {

struct ItemJsonOptions {
  std::string endpoint;  // "https://localhost:40001/personal/demo_contoso_example/_api/v2.0"
  std::string web_root;  // web URLs of drives start with it
};

class ItemJson {
 public:
  ItemJson(ItemJsonOptions options, const DownloadLinks& links)
      : options_(std::move(options)), links_(links) {}

  Json::Value OfDrive(const Drive& drive) const;
  /// As `user` sees it: paths in the drives of others start otherwise than in one's own.
  Json::Value OfItem(const Item& item, const Drive& drive, const Identity& user) const;
  /// An entry of the "shared with me" list: what is in someone else's drive is a "remoteItem".
  Json::Value OfSharedItem(const Item& item, const Drive& drive, const Identity& user) const;

  /// "https://.../_api/v2.0/$metadata#" and `name`
  std::string Context(const std::string& name) const;

 private:
  std::string WebUrl(const Drive& drive) const;

  const ItemJsonOptions options_;
  const DownloadLinks& links_;
};

/// A whole answer about one item.
Response ItemResponse(int status, const Item& item, const Json::Value& document);

}  // namespace emulator
