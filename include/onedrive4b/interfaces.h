// The interfaces through which host and module call each other.
//
// The order of the virtual operations is the contract. The interfaces have no virtual destructor:
// an object is never deleted through them, and a destructor's slots would move the operations.
//
// Threads: the host may call operations of one protocol object from several threads at once. Each
// runs on its caller's thread, and so do the callbacks it makes (IFileList, IFetchCallback,
// ICacheIO, progress). ILog, IProtocolAuth and IProtocolManager are called from every thread that
// runs module code, the token-refresh thread of a connected object included.
//
// Ownership: every pointer passed to an operation is the caller's and must stay valid until the
// operation returns; IProtocolManager and IProtocolAuth must outlive the protocol object.
//
// Exceptions: no operation of the module throws. A receiver should not throw either: one that does
// fails its operation, except that an entry of a listing is left out, the last piece of a download
// counts as taken, and a logger, a progress function and a value that cannot be read are ignored.
//
// Texts that come from the service (ids, names, entity tags, URLs) may hold any character, in
// records as in log lines: a host that writes them to a file or terminal escapes them.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#include "onedrive4b/aerror.h"
#include "onedrive4b/records.h"

class AsyncQ;        // the host's job queue; the module stores a pointer and never calls it
class IFileChanges;  // receiver of changes; the module never calls it
class IProtocol_V2;

/// Severity of a log line. Hosts may know more values; the module uses these.
enum LOGLEVEL : std::int32_t {
  LOGLEVEL_INFO = 1,    ///< progress and results
  LOGLEVEL_DETAIL = 2,  ///< the transfer library's informational text
  LOGLEVEL_ERROR = 8,   ///< failures
};

/// The host's logger. Called from several threads at once.
class ILog {
 public:
  /// The host's; the module never calls it.
  virtual void HostReserved() = 0;
  /// Whether requests and responses are to be traced header by header.
  virtual bool IsDetailed() = 0;
  /// One line, to be formatted by the host as vprintf would.
  virtual void Write(LOGLEVEL level, const char* format, std::va_list arguments) = 0;

 protected:
  ~ILog() = default;
};

/// A job of the host's queue.
class IAsyncObj {
 public:
  virtual void Process(void* context) = 0;
  virtual void Canceled(void* context) = 0;
  virtual ~IAsyncObj() = default;
};

/// Services that the host gives to a protocol object when it is made. Results are ignored.
class IProtocolManager {
 public:
  /// Writes the NUL-terminated id under which the object's values are stored. `length` holds the
  /// buffer's size in bytes.
  virtual AERROR GetPID(const char* module_key, char* buffer, int* length) = 0;
  /// Stores a value; an empty text removes it. Keys: "refresh_token" (a secret) and "pid".
  virtual AERROR SetValue(const char* pid, const char* key, const char* value) = 0;
  /// Reads a value into a zero-filled buffer of `*length` bytes; leaves it empty if there is none.
  virtual AERROR GetValue(const char* pid, const char* key, char* buffer, int* length) = 0;

 protected:
  ~IProtocolManager() = default;
};

/// The host's authorisation service: it alone talks to the OAuth 2.0 authority (RFC 6749).
class IProtocolAuth {
 public:
  /// Obtains tokens. `credential` is a JSON object: "results"."refresh_token" may hold a refresh
  /// token, and "args"."resource", when present and not empty, names the resource that the access
  /// token is for. Returns a new JSON text whose "results" hold "access_token" and, when there is a
  /// new one, "refresh_token"; null on failure. May be called from any thread.
  virtual char* Authorize(IProtocol_V2* protocol, const char* credential) = 0;
  /// Releases a text that Authorize returned. Null is ignored.
  virtual void FreeResult(char* text) = 0;

 protected:
  ~IProtocolAuth() = default;
};

/// Receiver of a listing.
class IFileList {
 public:
  /// One entry. The record lives only during the call; the result is ignored.
  virtual AERROR AddFile(_FS_FILE_V2* file) = 0;

 protected:
  ~IFileList() = default;
};

/// Receiver of downloaded bytes.
class IFetchCallback {
 public:
  /// `length` bytes that belong at file offset `offset`; `data` lives only during the call. Pieces
  /// come in file order; after a repeated request they start again at the range's first byte.
  /// `reserved` is 0; the result is ignored.
  virtual AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length,
                         int reserved) = 0;

 protected:
  ~IFetchCallback() = default;
};

/// The host's local copy of a file that is being uploaded.
class ICacheIO {
 public:
  /// Fills `request->buffer` and sets `request->done`. 0 is success, everything else ends the
  /// upload.
  virtual int ReadCache(_CACHEIO_REQUEST* request) = 0;

 protected:
  ~ICacheIO() = default;
};

/// A protocol object: first link of the chain. See IProtocol_V2.
class IRefObject {
 public:
  /// Stops the object's background work, waits for it and destroys the object. There is no
  /// reference count. No other operation of the object may be running.
  virtual void Release() = 0;

 protected:
  ~IRefObject() = default;
};

/// A protocol object: operations on account and files. See IProtocol_V2.
///
/// Items are named by ids, as the module reported them in a record's `id`; a null id is the drive's
/// root. `message` out-parameters are never set. Operations that need the service return
/// FS_NEED_AUTHORIZE before Connect has succeeded, INVALID_PARAMETER for a null argument that they
/// need, and FAILED where nothing more exact is known.
class IProtocol_V1 : public IRefObject {
 public:
  /// Display name of the signed-in user; INVALID_PARAMETER before Connect. `*length`: in,
  /// characters the buffer takes besides the terminating NUL; out, the name's length.
  /// INSUFFICIENT_BUFFER leaves it unchanged.
  virtual AERROR GetUserInfo(char* buffer, int* length) = 0;
  /// Bytes of storage; either pointer may be null. Asks the service at most once a minute.
  /// INVALID_PARAMETER before Connect.
  virtual AERROR GetQuota(std::uint64_t* total, std::uint64_t* used) = 0;
  /// Accepted and ignored.
  virtual AERROR SetQuota(std::uint64_t total, std::uint64_t used) = 0;
  /// Sets `*out` to the static name of the protocol.
  virtual AERROR GetType(char** out) = 0;
  /// Hands the entries of a folder to `list`, page by page. Entries handed over before a failure
  /// stay handed over.
  virtual AERROR GetFileList(const char* id, IFileList* list, char** message) = 0;
  /// Reports no changes.
  virtual AERROR GetChanges(IFileChanges* changes, char** message) = 0;
  /// Describes one item. Fields that the service does not supply keep what `file` held.
  virtual AERROR GetFileInfo(const char* id, _FS_FILE_V2* file, char** message) = 0;
  /// Gives the item the name `file->filename`; `target` is only logged.
  virtual AERROR Rename(const char* id, const char* target, _FS_FILE_V2* file, char** message) = 0;
  /// Puts the item into the folder `target` (null or empty: the drive root) under the name
  /// `file->filename`. A null `id` is refused with FAILED.
  virtual AERROR Move(const char* id, const char* target, _FS_FILE_V2* file, char** message) = 0;
  /// Move for folders.
  virtual AERROR MoveDir(const char* id, const char* target, _FS_FILE_V2* file, char** message) = 0;
  /// Creates the folder `file->filename` and fills `file`.
  virtual AERROR CreateDirectory(const char* parent, _FS_FILE_V2* file, char** message) = 0;
  /// Deletes the item `file->id`.
  virtual AERROR Delete(_FS_FILE_V2* file, char** message) = 0;
  /// Delete for folders.
  virtual AERROR DeleteDirectory(_FS_FILE_V2* file, char** message) = 0;
  /// Downloads the bytes [offset, offset + length). Raising `handle->state` above 2 ends it with
  /// READ_CANCELED.
  virtual AERROR Read(const char* id, std::int64_t offset, std::int64_t length,
                      std::shared_ptr<_FS_HANDLE> handle, IFetchCallback* callback,
                      char** message) = 0;
  /// Uploads `file->size` bytes as `file->filename` into the folder `parent` and fills `file`.
  virtual AERROR Upload(const char* parent, std::shared_ptr<_FS_HANDLE> handle, ICacheIO* cache,
                        _FS_FILE_V2* file, UPLOAD_FLAG flag, char** message) = 0;
  /// NOT_SUPPORTED.
  virtual AERROR SetFileTime(const char* id, std::string created, std::string modified,
                             std::string accessed, _FS_FILE_V2* file, char** message) = 0;
  /// Sets an option; keys are compared without regard to case, unknown ones are ignored. Not to be
  /// called while other operations of the object run.
  virtual AERROR SetOpt(const char* key, const char* value) = 0;
  /// The credential text given to Connect. Lengths as for GetUserInfo; FS_NEED_AUTHORIZE before.
  virtual AERROR GetCredential(char* buffer, int* length) = 0;
  /// Feature bits.
  virtual int GetFeature() = 0;
  /// Accepted and ignored.
  virtual void SetQuotaCallback(void* context,
                                bool (*callback)(void* context, void* reserved, std::int64_t* total,
                                                 std::int64_t* used)) = 0;
  /// Releases a text handed out through a `message` parameter. Null is ignored.
  virtual void FreeMsg(char* message) = 0;

 protected:
  ~IProtocol_V1() = default;
};

/// A protocol object as GetProtocol makes it. The order of calls is GetProtocol, SetOpt any number
/// of times, Connect, operations, Release.
class IProtocol_V2 : public IProtocol_V1 {
 public:
  /// Signs in: SUCCESS or AUTH_FAILED; INVALID_PARAMETER without auth, credential or manager.
  /// Starts the thread that renews tokens. `auth` is kept until Release.
  virtual AERROR Connect(IProtocolAuth* auth, const char* credential) = 0;
  /// SUCCESS; writes nothing.
  virtual AERROR GetIdentifier(char* buffer, int* length) = 0;
  /// Id of the folder that the host shows as the drive's top. Lengths as for GetUserInfo;
  /// ACCESS_DENIED when `length` is null.
  virtual AERROR GetRootID(char* buffer, int* length) = 0;

 protected:
  ~IProtocol_V2() = default;
};
