// The one request of the unified API that clients of the drive need: where a user's drive is ("Get
// Drive" in its public documentation).
// Threads: callable from any. Lifetime: authority and drives must outlive it.
#pragma once

#include <string>
#include <vector>

#include "emulator/api/item_json.h"
#include "emulator/authority/authority.h"
#include "emulator/drive/drive.h"
#include "emulator/http/message.h"

namespace emulator {

class UnifiedApi {
 public:
  struct Parts {
    const Authority& authority;
    std::vector<Drive*> drives;
    const ItemJson& json;
  };

  /// `resource`: what tokens have to be for.
  UnifiedApi(std::string resource, Parts parts)
      : resource_(std::move(resource)), parts_(std::move(parts)) {}

  Response Handle(const Request& request);

 private:
  const std::string resource_;
  const Parts parts_;
};

}  // namespace emulator
