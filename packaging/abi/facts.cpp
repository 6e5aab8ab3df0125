// Prints the tables of docs/abi.md: sizes, offsets and slots as the compiler has them.
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "onedrive4b/entry_points.h"

namespace {

template <typename Record>
class RecordTable {
 public:
  explicit RecordTable(const char* name) {
    std::printf("<!-- %s -->\n| field | offset | size |\n|---|---:|---:|\n", name);
  }
  ~RecordTable() { std::printf("| (all) | 0 | %zu |\n", sizeof(Record)); }
  RecordTable(const RecordTable&) = delete;
  RecordTable& operator=(const RecordTable&) = delete;

  template <typename Field, typename Class>
  RecordTable& Row(const char* name, Field Class::*field) {
    const auto* start = reinterpret_cast<const char*>(&record_);
    const auto* place = reinterpret_cast<const char*>(&(record_.*field));
    std::printf("| `%s` | %td | %zu |\n", name, place - start, sizeof(Field));
    return *this;
  }

 private:
  Record record_{};
};

/// Number of a virtual operation in the table, from 0. A pointer to it holds its place in bytes;
/// the lowest bit may be a mark (Itanium C++ ABI, 2.3).
template <typename Operation>
std::size_t Slot(Operation operation) {
  std::uintptr_t place = 0;
  std::memcpy(&place, &operation, sizeof place);
  return (place & ~std::uintptr_t{1}) / sizeof(void*);
}

void Interface(const char* name) {
  std::printf("<!-- %s -->\n| slot | operation |\n|---:|---|\n", name);
}

template <typename Operation>
void Row(const char* name, Operation operation) {
  std::printf("| %zu | `%s` |\n", Slot(operation), name);
}

#define ROW(Class, Name) Row(#Name, &Class::Name)

void ProtocolObject() {
  Interface("IProtocol_V2");
  ROW(IRefObject, Release);
  ROW(IProtocol_V1, GetUserInfo);
  ROW(IProtocol_V1, GetQuota);
  ROW(IProtocol_V1, SetQuota);
  ROW(IProtocol_V1, GetType);
  ROW(IProtocol_V1, GetFileList);
  ROW(IProtocol_V1, GetChanges);
  ROW(IProtocol_V1, GetFileInfo);
  ROW(IProtocol_V1, Rename);
  ROW(IProtocol_V1, Move);
  ROW(IProtocol_V1, MoveDir);
  ROW(IProtocol_V1, CreateDirectory);
  ROW(IProtocol_V1, Delete);
  ROW(IProtocol_V1, DeleteDirectory);
  ROW(IProtocol_V1, Read);
  ROW(IProtocol_V1, Upload);
  ROW(IProtocol_V1, SetFileTime);
  ROW(IProtocol_V1, SetOpt);
  ROW(IProtocol_V1, GetCredential);
  ROW(IProtocol_V1, GetFeature);
  ROW(IProtocol_V1, SetQuotaCallback);
  ROW(IProtocol_V1, FreeMsg);
  ROW(IProtocol_V2, Connect);
  ROW(IProtocol_V2, GetIdentifier);
  ROW(IProtocol_V2, GetRootID);
}

void HostInterfaces() {
  Interface("ILog");
  ROW(ILog, HostReserved);
  ROW(ILog, IsDetailed);
  ROW(ILog, Write);
  Interface("IProtocolManager");
  ROW(IProtocolManager, GetPID);
  ROW(IProtocolManager, SetValue);
  ROW(IProtocolManager, GetValue);
  Interface("IProtocolAuth");
  ROW(IProtocolAuth, Authorize);
  ROW(IProtocolAuth, FreeResult);
  Interface("IFileList");
  ROW(IFileList, AddFile);
  Interface("IFetchCallback");
  ROW(IFetchCallback, OnFetch);
  Interface("ICacheIO");
  ROW(ICacheIO, ReadCache);
  Interface("IAsyncObj");
  ROW(IAsyncObj, Process);
  ROW(IAsyncObj, Canceled);
}

void Records() {
  RecordTable<_FS_FILE_V2>("_FS_FILE_V2")
      .ROW(_FS_FILE_V2, id)
      .ROW(_FS_FILE_V2, attr)
      .ROW(_FS_FILE_V2, size)
      .ROW(_FS_FILE_V2, crtime)
      .ROW(_FS_FILE_V2, lasttime)
      .ROW(_FS_FILE_V2, accesstime)
      .ROW(_FS_FILE_V2, filename)
      .ROW(_FS_FILE_V2, eTag)
      .ROW(_FS_FILE_V2, extlist)
      .ROW(_FS_FILE_V2, extinfo);
  RecordTable<_FS_HANDLE>("_FS_HANDLE")
      .ROW(_FS_HANDLE, host_field1)
      .ROW(_FS_HANDLE, state)
      .ROW(_FS_HANDLE, position)
      .ROW(_FS_HANDLE, host_field2)
      .ROW(_FS_HANDLE, progress)
      .ROW(_FS_HANDLE, progressctx);
  RecordTable<_CACHEIO_REQUEST>("_CACHEIO_REQUEST")
      .ROW(_CACHEIO_REQUEST, buffer)
      .ROW(_CACHEIO_REQUEST, offset)
      .ROW(_CACHEIO_REQUEST, length)
      .ROW(_CACHEIO_REQUEST, done)
      .ROW(_CACHEIO_REQUEST, handle)
      .ROW(_CACHEIO_REQUEST, remaining)
      .ROW(_CACHEIO_REQUEST, reserved);
  RecordTable<_PROXYINFO>("_PROXYINFO")
      .ROW(_PROXYINFO, type)
      .ROW(_PROXYINFO, host)
      .ROW(_PROXYINFO, port)
      .ROW(_PROXYINFO, user)
      .ROW(_PROXYINFO, password);
}

#undef ROW

void Numbers() {
  std::puts("<!-- numbers -->\n| type | size |\n|---|---:|");
  std::printf("| `AERROR` | %zu |\n| `LOGLEVEL` | %zu |\n| `UPLOAD_FLAG` | %zu |\n", sizeof(AERROR),
              sizeof(LOGLEVEL), sizeof(UPLOAD_FLAG));
  std::printf("| `ProgressCallback` | %zu |\n| `std::string` | %zu |\n", sizeof(ProgressCallback),
              sizeof(std::string));
  std::printf("| `std::shared_ptr` | %zu |\n| `std::deque` | %zu |\n",
              sizeof(std::shared_ptr<char[]>), sizeof(std::deque<std::string>));
}

}  // namespace

int main() {
  ProtocolObject();
  HostInterfaces();
  Records();
  Numbers();
}
