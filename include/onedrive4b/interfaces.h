// The interfaces through which host and module call each other.
//
// The order of the virtual operations must never change. The interfaces have no virtual destructor:
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
// Exceptions: no operation of the module throws. A callback should not throw either. If it does,
// its operation fails, with these exceptions: an entry of a listing is left out, the last piece of
// a download counts as delivered, and a throw from the logger, from a progress function or from
// GetValue is ignored.
//
// Texts from the service (ids, names, entity tags, URLs) may contain any character, in records and
// in log lines: a host must escape them before it writes them to a file or terminal.
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

/// Severity of a log line. Hosts may define more values; the module uses these.
enum LOGLEVEL : std::int32_t {
  LOGLEVEL_INFO = 1,    ///< progress and results
  LOGLEVEL_DETAIL = 2,  ///< the transfer library's informational text
  LOGLEVEL_ERROR = 8,   ///< failures
};

/// The host's logger. Called from several threads at once.
class ILog {
 public:
  /// Belongs to the host; the module never calls it.
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

/// Store of the host for the values of a protocol object. Results are ignored.
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

/// The host's authorisation service. Only the host talks to the OAuth 2.0 authority (RFC 6749).
class IProtocolAuth {
 public:
  /// Obtains tokens. `credential` is a JSON object: "results"."refresh_token" may hold a refresh
  /// token, and "args"."resource", when present and not empty, names the resource that the access
  /// token is for. Returns a new JSON text whose "results" contain "access_token" and, if there is
  /// a new one, "refresh_token"; null on failure. May be called from any thread.
  virtual char* Authorize(IProtocol_V2* protocol, const char* credential) = 0;
  /// Releases a text that Authorize returned. Null is ignored.
  virtual void FreeResult(char* text) = 0;

 protected:
  ~IProtocolAuth() = default;
};

/// Receiver of a listing.
class IFileList {
 public:
  /// One entry. The record is valid only during the call; the result is ignored.
  virtual AERROR AddFile(_FS_FILE_V2* file) = 0;

 protected:
  ~IFileList() = default;
};

/// Receiver of downloaded bytes.
class IFetchCallback {
 public:
  /// `length` bytes at file offset `offset`; `data` is valid only during the call. Pieces
  /// arrive in file order; after a repeated request they start again at the range's first byte.
  /// `reserved` is 0; the result is ignored.
  virtual AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length,
                         int reserved) = 0;

 protected:
  ~IFetchCallback() = default;
};

/// The host's local copy of a file that is being uploaded.
class ICacheIO {
 public:
  /// Fills `request->buffer` and sets `request->done`. 0 is success; any other result ends the
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
/// An id names an item; it is the `id` of a record that the module filled. A null id is the drive's
/// root. `message` out-parameters are never set. Operations that need the service return
/// FS_NEED_AUTHORIZE before Connect has succeeded, INVALID_PARAMETER if a required argument is
/// null, and FAILED for every failure without its own value.
class IProtocol_V1 : public IRefObject {
 public:
  /// Display name of the signed-in user; INVALID_PARAMETER before Connect. `*length`: in,
  /// bytes that the buffer can hold in addition to the NUL; out, the name's length.
  /// INSUFFICIENT_BUFFER leaves it unchanged.
  virtual AERROR GetUserInfo(char* buffer, int* length) = 0;
  /// Bytes of storage; either pointer may be null. Asks the service at most once a minute.
  /// INVALID_PARAMETER before Connect.
  virtual AERROR GetQuota(std::uint64_t* total, std::uint64_t* used) = 0;
  /// Accepted and ignored.
  virtual AERROR SetQuota(std::uint64_t total, std::uint64_t used) = 0;
  /// Sets `*out` to the static name of the protocol.
  virtual AERROR GetType(char** out) = 0;
  /// Passes the entries of a folder to `list`, page by page. A failure does not take back entries
  /// that were passed before it.
  virtual AERROR GetFileList(const char* id, IFileList* list, char** message) = 0;
  /// Reports no changes.
  virtual AERROR GetChanges(IFileChanges* changes, char** message) = 0;
  /// Describes one item. Fields that the service does not send keep their values in `file`.
  virtual AERROR GetFileInfo(const char* id, _FS_FILE_V2* file, char** message) = 0;
  /// Renames the item to `file->filename`; `target` is only logged.
  virtual AERROR Rename(const char* id, const char* target, _FS_FILE_V2* file, char** message) = 0;
  /// Moves the item into the folder `target` (null or empty: the drive root) under the name
  /// `file->filename`. A null `id` is FAILED.
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
  /// Sets an option; keys are compared without regard to case, unknown ones are ignored. Must not
  /// be called while other operations of the object run.
  virtual AERROR SetOpt(const char* key, const char* value) = 0;
  /// The credential text that was passed to Connect; FS_NEED_AUTHORIZE before Connect. Lengths as
  /// for GetUserInfo.
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

/// A protocol object that GetProtocol made. The order of calls is GetProtocol, SetOpt any number
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
