// Resumable uploads ("Upload large files" in the public documentation): sessions with a
// pre-authenticated URL on the content origin, to which a file comes piece by piece.
// Threads: callable from any; pieces of one session are taken one after the other. Lifetime: what
// has been sent is lost with its session; drives and links must outlive the object.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "emulator/api/item_json.h"
#include "emulator/api/url_signer.h"
#include "emulator/drive/drive.h"
#include "emulator/http/message.h"

namespace emulator {

struct UploadSessionOptions {
  std::string base;  // origin and path that all upload URLs start with
  std::chrono::seconds lifetime{86400};
};

class UploadSessions {
 public:
  UploadSessions(UploadSessionOptions options, const ItemJson& json)
      : options_(std::move(options)), json_(json) {}

  /// Answers with the session's URL. `request.by` is not used: `user` is.
  Response Create(Drive& drive, Drive::FileRequest request, const Identity& user);

  /// PUT, GET and DELETE on such a URL. Throws ServiceError.
  Response Handle(Request& request);

  /// All sessions are gone from now on.
  void ExpireAll();

 private:
  struct Session {
    Session(Drive& the_drive, Drive::FileRequest the_file, Identity the_user, Seconds the_end);

    Drive& drive;
    Drive::FileRequest file;
    Identity user;
    Seconds expires;
    std::mutex mutex;
    // Guarded by mutex.
    std::unique_ptr<ContentWriter> writer;  // null once the file is complete
    std::optional<std::uint64_t> total;
  };
  using SessionPtr = std::shared_ptr<Session>;

  struct Piece {
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    std::uint64_t total = 0;
    std::uint64_t Size() const { return last - first + 1; }
    bool IsLast() const { return last + 1 == total; }
  };
  static Piece ReadPiece(const Request& request);
  static void CheckPiece(const Session& session, const Piece& piece);
  static void Receive(Session& session, const Piece& piece, BodyReader& body);
  static Response Status(const Session& session, int status);

  Response Put(const std::string& id, Session& session, Request& request);
  SessionPtr Find(const std::string& id);
  void Forget(const std::string& id);

  const UploadSessionOptions options_;
  const ItemJson& json_;
  UrlSigner signer_;
  std::mutex mutex_;
  std::map<std::string, SessionPtr> sessions_;  // guarded by mutex_
};

}  // namespace emulator
