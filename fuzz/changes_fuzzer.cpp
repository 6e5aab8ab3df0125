// Changes and uploads, whose answers are items and sessions. Input: the record's id, name and size,
// then one answer a line.
#include "fuzz/signed_in_object.h"

namespace {

class Zeros final : public ICacheIO {
 public:
  int ReadCache(_CACHEIO_REQUEST* request) override {
    Require(request->length <= request->remaining, "no more is asked for than is left");
    std::memset(request->buffer, 0, request->length);
    request->done = request->length;
    return 0;
  }
};

AERROR Change(SignedInObject& drive, const char* id, std::size_t kind, _FS_FILE_V2& file) {
  Zeros cache;
  switch (kind) {
    case 0:
      return drive->Rename(id, nullptr, &file, nullptr);
    case 1:
      return drive->Move(id, "target", &file, nullptr);
    case 2:
      return drive->CreateDirectory(id, &file, nullptr);
    case 3:
      return drive->Delete(&file, nullptr);
    default:
      return drive->Upload(id, std::make_shared<_FS_HANDLE>(), &cache, &file, UPLOAD_FLAG{},
                           nullptr);
  }
}

bool SameItem(const _FS_FILE_V2& a, const _FS_FILE_V2& b) {
  return a.id == b.id && a.filename == b.filename && a.size == b.size && a.attr == b.attr &&
         a.eTag == b.eTag && a.lasttime == b.lasttime;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  FuzzInput input(data, size);
  _FS_FILE_V2 before;
  before.attr = 1;
  before.id = input.Line();
  before.filename = input.Line();
  before.size = NumberIn(input.Line());
  SignedInObject drive;
  for (std::size_t kind = 0; kind < 5; ++kind) {
    drive.network.QueueRest(input);
    _FS_FILE_V2 file = before;
    const AERROR result = Change(drive, before.id.c_str(), kind, file);
    if (result == SUCCESS && !SameItem(file, before)) {
      RequireWellFormed(file);
    } else {
      Require(SameItem(file, before), "a change that fails leaves the record alone");
    }
  }
  for (const ScriptedTransfers::Seen& request : drive.network.seen) {
    Require(!request.has_token || request.url.starts_with(kServiceEndpoint),
            "the token goes to the service only");
  }
  return 0;
}
