#include "drive/module_remote.h"

#include <exception>
#include <limits>
#include <memory>
#include <utility>

#include "base/time_text.h"
#include "host/cancellation.h"
#include "host/log.h"

namespace drive {
namespace {

FileTime ToTime(const std::string& text) { return base::ParseRfc3339(text).value_or(FileTime{}); }

RemoteItem ToRemoteItem(host::Item item) {
  RemoteItem remote;
  remote.id = std::move(item.id);
  remote.name = std::move(item.name);
  if (item.folder) remote.kind = item.made_up ? Kind::kFixedFolder : Kind::kFolder;
  remote.size = item.size;
  remote.modified = ToTime(item.modified);
  remote.etag = std::move(item.etag);
  return remote;
}

host::Item ToHostItem(const RemoteItem& remote) {
  host::Item item;
  item.id = remote.id;
  item.name = remote.name;
  item.folder = remote.kind != Kind::kFile;
  item.size = remote.size;
  item.etag = remote.etag;
  return item;
}

/// A transfer that ends when the token is raised, or when what it works with throws.
class Transfer {
 public:
  explicit Transfer(std::stop_token stop)
      : handle_(std::make_shared<_FS_HANDLE>()),
        stopper_(std::move(stop), [handle = handle_] { host::StopTransfer(*handle); }) {}

  const std::shared_ptr<_FS_HANDLE>& handle() const { return handle_; }

  /// Runs a piece of the transfer. False: it threw, and the transfer ends.
  template <class Action>
  bool Try(const Action& action) noexcept {
    if (error_) return false;
    try {
      action();
      return true;
    } catch (...) {
      error_ = std::current_exception();
      host::StopTransfer(*handle_);
      return false;
    }
  }

  /// What was thrown is the reason of the transfer's failure.
  void Rethrow() const {
    if (error_) std::rethrow_exception(error_);
  }

 private:
  std::shared_ptr<_FS_HANDLE> handle_;
  std::stop_callback<std::function<void()>> stopper_;
  std::exception_ptr error_;
};

class Receiver final : public IFetchCallback {
 public:
  Receiver(Transfer& transfer, const PieceSink& to) : transfer_(transfer), to_(to) {}

  AERROR OnFetch(std::int64_t offset, const char* data, std::int64_t length, int) override {
    const bool taken = length < 0 || transfer_.Try([&] {
      to_(offset, {data, static_cast<std::size_t>(length)});
    });
    return taken ? SUCCESS : FAILED;
  }

 private:
  Transfer& transfer_;
  const PieceSink& to_;
};

class Source final : public ICacheIO {
 public:
  Source(Transfer& transfer, const PieceSource& from) : transfer_(transfer), from_(from) {}

  int ReadCache(_CACHEIO_REQUEST* request) override {
    if (request == nullptr || request->buffer == nullptr) return INVALID_PARAMETER;
    const bool read = transfer_.Try([&] {
      request->done =
          from_(request->offset, {request->buffer, static_cast<std::size_t>(request->length)});
    });
    return read ? SUCCESS : FILE_READ_FAILED;
  }

 private:
  Transfer& transfer_;
  const PieceSource& from_;
};

}  // namespace

Trouble TroubleOf(host::FailureKind kind) noexcept {
  using host::FailureKind;
  switch (kind) {
    case FailureKind::kNotFound:
      return Trouble::kNotFound;
    case FailureKind::kDenied:
      return Trouble::kDenied;
    case FailureKind::kRefused:
      return Trouble::kInvalid;
    case FailureKind::kConflict:
      return Trouble::kNameTaken;
    case FailureKind::kChanged:
      return Trouble::kChanged;
    case FailureKind::kLocked:
      return Trouble::kLocked;
    case FailureKind::kQuota:
      return Trouble::kFull;
    case FailureKind::kTooLarge:
      return Trouble::kTooLarge;
    case FailureKind::kThrottled:
      return Trouble::kThrottled;
    case FailureKind::kTrouble:
    case FailureKind::kUnreachable:
    case FailureKind::kProxy:
      return Trouble::kUnreachable;
    case FailureKind::kSignIn:
      return Trouble::kSignedOut;
    case FailureKind::kInterrupted:
      return Trouble::kStopped;
    case FailureKind::kFailed:
    case FailureKind::kUsage:
    case FailureKind::kModule:
    case FailureKind::kLocal:
      break;
  }
  return Trouble::kFailed;
}

/// Runs a request of the host library; its failures become RemoteErrors.
template <class Request>
auto ModuleRemote::Ask(const Request& request) const {
  const host::ThrottleWatch watch([this] { observer_(RequestEvent::kThrottled); });
  try {
    return request();
  } catch (const host::Failure& failure) {
    throw RemoteError(TroubleOf(failure.kind()), failure.what());
  }
}

/// The same for a request that changes nothing.
template <class Request>
auto ModuleRemote::Question(const Request& request) const {
  observer_(RequestEvent::kQuestion);
  return Ask(request);
}

RemoteItem ModuleRemote::Top() {
  return Question([&] { return ToRemoteItem(client_.Top()); });
}

std::vector<RemoteItem> ModuleRemote::List(const std::string& folder_id) {
  return Question([&] {
    std::vector<RemoteItem> items;
    for (host::Item& item : client_.List(folder_id, folder_id)) {
      items.push_back(ToRemoteItem(std::move(item)));
    }
    return items;
  });
}

RemoteItem ModuleRemote::Describe(const std::string& id) {
  return Question([&] { return ToRemoteItem(client_.Describe(id, id)); });
}

RemoteItem ModuleRemote::MakeFolder(const std::string& folder_id, const std::string& name) {
  return Ask([&] {
    return ToRemoteItem(client_.MakeFolder({.folder_id = folder_id, .name = name, .shown = name}));
  });
}

RemoteItem ModuleRemote::Rename(const RemoteItem& item, const std::string& name) {
  return Ask([&] { return ToRemoteItem(client_.Rename(ToHostItem(item), name, item.name)); });
}

RemoteItem ModuleRemote::Move(const RemoteItem& item, const std::string& folder_id,
                              const std::string& name) {
  return Ask([&] {
    return ToRemoteItem(client_.Move(
        ToHostItem(item), {.folder_id = folder_id, .name = name, .shown = name}, item.name));
  });
}

void ModuleRemote::Delete(const RemoteItem& item) {
  Ask([&] { client_.Delete(ToHostItem(item), item.name); });
}

void ModuleRemote::Read(const std::string& id, std::int64_t offset, std::int64_t length,
                        const PieceSink& to, std::stop_token stop) {
  Transfer transfer(stop);
  Receiver receiver(transfer, to);
  try {
    Question([&] {
      client_.Read({.id = id, .offset = offset, .length = length, .handle = transfer.handle()},
                   receiver, id);
    });
  } catch (const RemoteError&) {
    transfer.Rethrow();
    if (stop.stop_requested()) throw RemoteError(Trouble::kStopped, "stopped");
    throw;
  }
  transfer.Rethrow();
}

RemoteItem ModuleRemote::Upload(const RemoteUpload& upload, const PieceSource& from,
                                std::stop_token stop) {
  Transfer transfer(stop);
  Source source(transfer, from);
  try {
    return Ask([&] {
      host::UploadRequest request;
      request.place = {.folder_id = upload.folder_id, .name = upload.name, .shown = upload.name};
      request.size = upload.size;
      request.handle = transfer.handle();
      request.etag = upload.etag;
      return ToRemoteItem(client_.Upload(request, source, upload.name));
    });
  } catch (const RemoteError&) {
    transfer.Rethrow();
    if (stop.stop_requested()) throw RemoteError(Trouble::kStopped, "stopped");
    throw;
  }
}

Space ModuleRemote::GetSpace() {
  return Question([&] {
    const host::Space space = client_.DriveSpace();
    return Space{.total = space.total, .used = space.used};
  });
}

}  // namespace drive
