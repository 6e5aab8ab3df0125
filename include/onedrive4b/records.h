// Plain records that host and module read and write in each other's memory.
//
// Field order and widths must never change, so no field can be added here. The records contain
// standard-library types: host and module must be built against the same standard library and the
// same ABI of std::string.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <string>

/// One file or folder.
struct _FS_FILE_V1 {
  std::string id;          ///< names the item to the module; opaque to the host
  std::uint32_t attr = 0;  ///< 1 file, 2 folder, 0x42 synthesised folder
  std::int64_t size = 0;   ///< bytes; 0 for folders
  std::string crtime;      ///< creation time, RFC 3339
  std::string lasttime;    ///< last modification time, RFC 3339
  std::string accesstime;  ///< the module always sets the value of `lasttime`
  std::string filename;    ///< display name, UTF-8
  /// NUL-terminated entity tag, shared by copies; empty for none. The module's code frees it, so
  /// destroy every record that the module has filled before you close the library.
  std::shared_ptr<char[]> eTag;
};

/// The record of the current interface. The module never changes the two fields of the host.
struct _FS_FILE_V2 : _FS_FILE_V1 {
  std::deque<std::string> extlist;  ///< the host's
  std::string extinfo;              ///< the host's
};

/// Progress of one transfer, called on the operation's thread. `total` and `done` are bytes;
/// `total` is 0 while it is unknown.
using ProgressCallback = void (*)(long long total, long long done, void* context,
                                  double bytes_per_second);

/// The host's handle of an open file, a parameter of Read and Upload.
struct _FS_HANDLE {
  std::int32_t host_field1 = 0;
  std::int32_t state = 0;     ///< above 2: the transfer ends within a second; set at any time
  std::int64_t position = 0;  ///< upload: file offset reached, written by the module
  std::int64_t host_field2 = 0;
  ProgressCallback progress = nullptr;  ///< null for none; must stay valid during the transfer
  void* progressctx = nullptr;          ///< passed back to `progress`
};

/// A request to ICacheIO::ReadCache.
struct _CACHEIO_REQUEST {
  char* buffer = nullptr;    ///< where the bytes go; room for `length`
  std::int64_t offset = 0;   ///< file offset to read from
  std::uint64_t length = 0;  ///< bytes wanted
  std::uint64_t done = 0;    ///< set by the host: bytes delivered, 1 to `length`
  std::shared_ptr<_FS_HANDLE> handle;
  std::uint64_t remaining = 0;  ///< bytes of the request still to upload, this piece included
  std::uint64_t reserved = 0;
};

/// Proxy settings of the module, shared by all its protocol objects.
struct _PROXYINFO {
  std::string type;  ///< "SOCKS4", "SOCKS5", "HTTP with TUNNEL", "HTTP without TUNNEL", else none
  std::string host;
  std::string port;  ///< decimal
  std::string user;
  std::string password;
};

/// Defined by the host; the module ignores the value.
enum UPLOAD_FLAG : std::int32_t {};

static_assert(sizeof(std::string) == 32 && sizeof(std::shared_ptr<char[]>) == 16 &&
                  sizeof(std::deque<std::string>) == 80,
              "host and module share the layout of the GNU C++ library with its C++11 strings");
static_assert(sizeof(_FS_FILE_V1) == 192 && sizeof(_FS_FILE_V2) == 304);
static_assert(sizeof(_FS_HANDLE) == 40 && offsetof(_FS_HANDLE, state) == 4 &&
              offsetof(_FS_HANDLE, position) == 8 && offsetof(_FS_HANDLE, progress) == 24);
static_assert(sizeof(_CACHEIO_REQUEST) == 64);
static_assert(sizeof(_PROXYINFO) == 160);
static_assert(sizeof(UPLOAD_FLAG) == 4);
