// Pre-authenticated download URLs on the content origin ("@content.downloadUrl" and the target of
// /content): good for minutes, for whoever has them, with their query byte for byte as given.
// Threads: callable from any. Lifetime: links are void with the object.
#pragma once

#include <atomic>
#include <chrono>
#include <optional>
#include <string>

#include "emulator/api/url_signer.h"
#include "emulator/drive/drive.h"
#include "emulator/http/message.h"

namespace emulator {

class DownloadLinks {
 public:
  /// `base`: origin and path that all links start with.
  DownloadLinks(std::string base, std::chrono::seconds lifetime)
      : base_(std::move(base)), lifetime_(lifetime) {}

  std::string LinkTo(const Drive& drive, const Item& item) const;

  struct Target {
    std::string drive_id;
    std::string item_id;
  };
  /// nullopt: not a link of ours, altered, or expired.
  std::optional<Target> Read(const Request& request) const;

  /// All links given so far are expired from now on.
  void ExpireAll() { ++generation_; }

 private:
  const std::string base_;
  const std::chrono::seconds lifetime_;
  std::atomic<int> generation_{0};
  UrlSigner signer_;
};

}  // namespace emulator
