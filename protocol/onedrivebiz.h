// The protocol object behind IProtocol_V2.
//
// Every operation runs on its caller's thread, and several may run at once on one object, except
// that SetOpt, Connect and Release run alone. Exceptions end at the edge of each operation.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "onedrive4b/interfaces.h"
#include "retry/query_with_backoff.h"
#include "support/json_object.h"
#include "support/steady_time.h"
#include "transport/onedrivebiz_curl.h"
#include "transport/request_signer.h"

namespace onedrive4b {

class About;
class AuthorizedReply;
struct UploadSession;

class OneDriveBiz : public IProtocol_V2 {
 public:
  static constexpr const char* kProtocolName = "onedrive4b";

  // The object itself and its options: onedrivebiz.cpp.

  /// Asks the manager, which may be null, for the id of the object's stored values.
  OneDriveBiz(const char* name, IProtocolManager* manager);
  OneDriveBiz(const OneDriveBiz&) = delete;
  OneDriveBiz& operator=(const OneDriveBiz&) = delete;
  virtual ~OneDriveBiz();

  void Release() override;
  AERROR SetOpt(const char* key, const char* value) override;
  void FreeMsg(char* message) override;

  // Getters; only the quota needs a request: getters.cpp.

  AERROR GetUserInfo(char* buffer, int* length) override;
  AERROR GetQuota(std::uint64_t* total, std::uint64_t* used) override;
  AERROR GetCredential(char* buffer, int* length) override;
  AERROR GetRootID(char* buffer, int* length) override;
  AERROR GetIdentifier(char* buffer, int* length) override;
  AERROR GetType(char** out) override;
  int GetFeature() override;
  static int GetAuthType() noexcept;
  static AERROR GetAuthFields(char* buffer, int* length) noexcept;
  static AERROR GetOptFields(char* buffer, int* length) noexcept;

  // What the protocol does not support: not_supported.cpp.

  AERROR SetQuota(std::uint64_t total, std::uint64_t used) override;
  void SetQuotaCallback(void* context,
                        bool (*callback)(void* context, void* reserved, std::int64_t* total,
                                         std::int64_t* used)) override;
  AERROR GetChanges(IFileChanges* changes, char** message) override;
  AERROR SetFileTime(const char* id, std::string created, std::string modified,
                     std::string accessed, _FS_FILE_V2* file, char** message) override;

  // Sign-in and tokens: sign_in.cpp.

  AERROR Connect(IProtocolAuth* auth, const char* credential) override;

  /// Renews both tokens through the host: RETRY if the caller may repeat its request, else FAILED.
  /// One renewal runs at a time and serves all callers that arrive meanwhile; within 3660 s of the
  /// last renewal there is no other. Any thread.
  AERROR RefreshAuth();

  /// Gets the service's token, or renews it. The first time it discovers the service and creates
  /// the account object. The parameters are ignored.
  template <typename Account>
  AERROR GetAuthForService(JsonObject& reply, std::string endpoint);

  /// Asks the discovery service where the user's files are. May leave `resource` as it was.
  AERROR GetServiceEndpoint(std::string& resource, std::string& endpoint);

  /// Creates the account object, which fetches the account information.
  template <typename Account>
  AERROR AddAbout(std::string endpoint);

  // Ids, URLs and records: item_address.cpp, item_metadata.cpp.

  /// URL of the item's resource; null is the drive root. Ids are inserted verbatim.
  virtual std::string GetUrl(const char* id);

  /// Whether the id names an item of another user's drive.
  static bool IsRemoteFile(const char* id);

  /// Copies the fields that the item's JSON contains into the record and leaves the others.
  /// `parentId` is the id of the listed folder, null for the shared view. Throws for an item
  /// without an id or a name and for a file without a size; earlier fields are already written
  /// then.
  static void FillData(const char* parentId, JsonObject item, _FS_FILE_V2* file);

  // Listing and lookup: listing.cpp.

  AERROR GetFileList(const char* id, IFileList* list, char** message) override;
  AERROR GetFileInfo(const char* id, _FS_FILE_V2* file, char** message) override;

  /// Lists what other users have shared with the account.
  AERROR GetSharedFileList(IFileList* list, char** message);

  // Changes of the tree: namespace_changes.cpp.

  AERROR Rename(const char* id, const char* target, _FS_FILE_V2* file, char** message) override;
  AERROR Move(const char* id, const char* target, _FS_FILE_V2* file, char** message) override;
  AERROR MoveDir(const char* id, const char* target, _FS_FILE_V2* file, char** message) override;
  AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** message) override;
  AERROR Delete(_FS_FILE_V2* file, char** message) override;
  AERROR DeleteDirectory(_FS_FILE_V2* file, char** message) override;

  // Content: download.cpp, upload.cpp.

  AERROR Read(const char* id, std::int64_t offset, std::int64_t length,
              std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
              char** message) override;
  AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                _FS_FILE_V2* file, UPLOAD_FLAG flag, char** message) override;
  AERROR UploadSimpleItem(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                          _FS_FILE_V2* file, char** message);
  AERROR UploadLargeItem(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                         _FS_FILE_V2* file, char** message);

 private:
  friend class About;

  using StepFunction = std::function<_CURLRTN(std::shared_ptr<OneDriveBizCURL>)>;

  // The handlers of a request's answers; see QueryWithBackoff.
  struct Answers {
    StatusHandlers by_class = {};
    StatusHandlers by_status = {};
    TransferErrors curl_errors = {};
    StopSignal stop = {};
  };

  // onedrivebiz.cpp

  // Runs a request; a 401 renews the tokens.
  AERROR Query(const char* name, StepFunction step, Answers answers);
  bool SignedIn() const { return service_auth_ != nullptr; }
  // Sets the URL and signs the request, unless the URL leaves the service's origin.
  void Address(const std::shared_ptr<OneDriveBizCURL>& request, const std::string& url);
  void SetOptionFields(const char* text);

  // sign_in.cpp

  // The credential text, with the stored refresh token moved into it if there is one.
  std::string TakeStoredToken(const char* credential);
  // Asks the host for the service's token.
  AuthorizedReply AuthorizeForService();
  AERROR FinishConnect(AuthorizedReply& authorized);
  AERROR RenewTokens();
  void KeepRefreshToken(const JsonObject& reply, const char* operation);
  bool RenewsHere() const { return renewing_thread_.load() == std::this_thread::get_id(); }
  // To be held while writing what a renewal reads: during Connect the refresh loop of an earlier
  // sign-in may be running. Empty inside a renewal, which already holds the lock.
  std::unique_lock<std::mutex> LockTokens();

  // item_metadata.cpp

  // Fills `file` from a response that is an item; leaves it unchanged on failure.
  static StatusHandler ItemHandler(const char* parent, _FS_FILE_V2* file);

  // listing.cpp

  AERROR ListPages(const char* name, std::string url, const char* parent, IFileList* list);

  // namespace_changes.cpp

  // The record's entity tag or, without one, the service's current tag.
  AERROR FindETag(const char* id, const _FS_FILE_V2& file, char** message,
                  std::shared_ptr<char[]>& etag);
  AERROR PatchItem(const char* name, const char* id, const std::shared_ptr<char[]>& etag,
                   const JsonObject& changes, _FS_FILE_V2* file);

  // upload.cpp

  bool MustBeNew(const _FS_FILE_V2& file) const;
  AERROR MakeUploadSession(const char* parent, const std::shared_ptr<_FS_HANDLE>& handle,
                           const _FS_FILE_V2& file, UploadSession& session);
  AERROR SendChunks(const char* parent, const std::shared_ptr<_FS_HANDLE>& handle, ICacheIO* cache,
                    UploadSession& session, _FS_FILE_V2* file);

  std::string refresh_token_;  // this, protocol_auth_, credential_ and auth_: see LockTokens
  std::string resource_id_;
  std::string endpoint_uri_;
  std::string name_;
  std::string pid_;
  std::shared_ptr<CURLAuth> auth_;          // signs discovery requests
  std::shared_ptr<CURLAuth> service_auth_;  // signs drive requests
  std::shared_ptr<About> about_;
  std::string service_endpoint_;  // base of every item URL
  std::int64_t speedlimit_ = 0;   // bytes per second, 0 for none
  IProtocolManager* manager_;
  IProtocolAuth* protocol_auth_ = nullptr;
  std::string credential_;
  bool show_shared_ = true;
  _FS_FILE_V2 root_;
  _FS_FILE_V2 top_;
  _FS_FILE_V2 shared_;
  std::function<AERROR(_CURLRTN&)> on_unauthorized_;
  SteadyTime::Clock::time_point last_refresh_;
  std::mutex refresh_mutex_;
  // The thread that holds refresh_mutex_: it must not lock again after a 401 of its own requests.
  std::atomic<std::thread::id> renewing_thread_{};
  std::string discovery_url_;
  bool upload_if_match_ = false;  // content replaces only the version that the record names
  bool upload_if_new_ = false;    // content of a record that names no version replaces nothing
};

}  // namespace onedrive4b
