// The REST service of drives and items, version 2.0, as its public documentation describes it.
// Threads: Handle is called from many threads at once. Lifetime: refers to what it is made of, all
// of which must outlive it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "emulator/api/download_links.h"
#include "emulator/api/item_address.h"
#include "emulator/api/item_json.h"
#include "emulator/api/upload_sessions.h"
#include "emulator/api/url_signer.h"
#include "emulator/authority/authority.h"
#include "emulator/drive/drive.h"
#include "emulator/http/message.h"
#include "emulator/text/encoding.h"

namespace emulator {

struct DriveApiOptions {
  std::string endpoint_path;  // "/personal/demo_contoso_example/_api/v2.0"
  std::string resource;       // that tokens have to be for
  std::size_t page_size = 200;
  std::uint64_t simple_upload_limit = 250'000'000;  // bytes of one PUT to /content
};

/// What the service of drives works with.
struct DriveApiParts {
  const Authority& authority;
  std::vector<Drive*> drives;
  const ItemJson& json;
  const DownloadLinks& links;
  UploadSessions& sessions;
};

class DriveApi {
 public:
  DriveApi(DriveApiOptions options, DriveApiParts parts)
      : options_(std::move(options)), parts_(std::move(parts)) {}

  /// Throws ServiceError.
  Response Handle(Request& request);

 private:
  struct Call {
    Request& request;
    ItemAddress address;
    FormFields query;
    Identity user;
    Drive& drive;

    bool Own() const { return drive.Owner().id == user.id; }
  };
  struct Route {
    std::string_view operation;
    std::string_view method;
    Response (DriveApi::*handle)(Call& call);
    bool of_drive;  // the address names no item
  };
  static const std::vector<Route>& Routes();

  // Reading: drive_api.cpp.
  Response GetDrive(Call& call);
  Response GetShared(Call& call);
  Response GetItem(Call& call);
  Response GetChildren(Call& call);
  Response GetContent(Call& call);

  // Changing: drive_api_changes.cpp.
  Response PutContent(Call& call);
  Response CreateSession(Call& call);
  Response CreateChild(Call& call);
  Response ChangeItem(Call& call);
  Response DeleteItem(Call& call);

  Drive& FindDrive(const std::string& id, const Identity& user) const;
  /// The item an address names; nullopt: there is none.
  static std::optional<Item> Find(const Drive& drive, const ItemAddress& address);
  /// The item the call names. Throws when there is none, or the caller's role does not reach.
  Item Target(const Call& call, SharedRole role) const;
  static void RequireRole(const Call& call, const std::string& item_id, SharedRole role);
  /// Where a file is to be written that need not be there yet.
  Drive::FileRequest FileTarget(const Call& call) const;
  /// `drive_id`: empty: the caller's own.
  void RequireSameDrive(const Call& call, const std::string& drive_id) const;
  std::string NewParent(const Call& call, const Json::Value& reference) const;

  std::size_t PageSize(const Call& call) const;
  std::string PageStart(const Call& call) const;
  std::string NextLink(const Call& call, const std::string& next) const;
  Json::Value ChildrenJson(const Call& call, const Item& folder, const std::string& from,
                           std::string& next) const;
  Response Answer(const Call& call, int status, const Item& item) const;

  const DriveApiOptions options_;
  const DriveApiParts parts_;
  UrlSigner page_signer_;
};

}  // namespace emulator
