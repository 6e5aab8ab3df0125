// ModuleRemote: the service through the protocol module.
//
// The session of the client must upload under conditions (SessionOptions::guard_uploads).
// Lifetime: the client must outlive it.
#pragma once

#include <utility>

#include "drive/remote.h"
#include "host/failure.h"
#include "host/item_client.h"

namespace drive {

/// What a failure of the host library means for the drive.
Trouble TroubleOf(host::FailureKind kind) noexcept;

class ModuleRemote final : public Remote {
 public:
  explicit ModuleRemote(const host::ItemClient& client) : client_(client) {}

  void SetObserver(Observer observer) override { observer_ = std::move(observer); }

  RemoteItem Top() override;
  std::vector<RemoteItem> List(const std::string& folder_id) override;
  RemoteItem Describe(const std::string& id) override;
  RemoteItem MakeFolder(const std::string& folder_id, const std::string& name) override;
  RemoteItem Rename(const RemoteItem& item, const std::string& name) override;
  RemoteItem Move(const RemoteItem& item, const std::string& folder_id,
                  const std::string& name) override;
  void Delete(const RemoteItem& item) override;
  void Read(const std::string& id, std::int64_t offset, std::int64_t length, const PieceSink& to,
            std::stop_token stop) override;
  RemoteItem Upload(const RemoteUpload& upload, const PieceSource& from,
                    std::stop_token stop) override;
  Space GetSpace() override;

 private:
  template <class Request>
  auto Question(const Request& request) const;
  template <class Request>
  auto Ask(const Request& request) const;

  const host::ItemClient& client_;
  Observer observer_ = [](RequestEvent) {};
};

}  // namespace drive
