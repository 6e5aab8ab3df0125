#include "emulator/api/upload_sessions.h"

#include <charconv>
#include <utility>
#include <vector>

#include "base/json_text.h"
#include "emulator/http/service_error.h"
#include "emulator/text/encoding.h"
#include "emulator/text/random_text.h"

namespace emulator {
namespace {

constexpr std::string_view kSignature = "&tempauth=";
constexpr std::uint64_t kGranule = std::uint64_t{320} * 1024;
constexpr std::uint64_t kPieceLimit = std::uint64_t{60} * 1024 * 1024;

ServiceError WrongRange(const std::string& inner_code, const std::string& message) {
  return ServiceError(416, "invalidRange", message).WithInnerCode(inner_code);
}

ServiceError SessionGone() { return {404, "itemNotFound", "The upload session was not found."}; }

/// Takes a number off the front, then the character that has to follow it.
std::optional<std::uint64_t> TakeNumber(std::string_view& text, char end) {
  std::uint64_t number = 0;
  const auto result = std::from_chars(text.data(), text.data() + text.size(), number);
  if (result.ec != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(result.ptr - text.data()));
  if (end == '\0') return text.empty() ? std::optional(number) : std::nullopt;
  if (!text.starts_with(end)) return std::nullopt;
  text.remove_prefix(1);
  return number;
}

}  // namespace

UploadSessions::Session::Session(Drive& the_drive, Drive::FileRequest the_file, Identity the_user,
                                 Seconds the_end)
    : drive(the_drive),
      file(std::move(the_file)),
      user(std::move(the_user)),
      expires(the_end),
      writer(drive.Store().NewWriter()) {
  file.by = &user;
}

Response UploadSessions::Create(Drive& drive, Drive::FileRequest request, const Identity& user) {
  drive.CheckStore(request, 0);
  const std::string id = RandomGuid();
  // Quotes and all, as the real ones look: the query has to come back byte for byte.
  const std::string query = "guid='" + id + "'&path='~tmp" + id.substr(0, 2) +
                            "_file.part'&overwrite=True&rename=False&dc=0";
  std::string url = options_.base + "/items/" + request.parent_id + "/uploadSession?" + query;
  url += kSignature;
  url += signer_.Sign(query);

  const auto session =
      std::make_shared<Session>(drive, std::move(request), user, Now() + options_.lifetime);
  {
    const std::lock_guard lock(mutex_);
    std::erase_if(sessions_, [](const auto& entry) { return entry.second->expires <= Now(); });
    sessions_[id] = session;
  }
  Json::Value document;
  document["@odata.context"] = json_.Context("oneDrive.uploadSession");
  document["uploadUrl"] = url;
  document["expirationDateTime"] = Rfc3339(session->expires);
  document["nextExpectedRanges"].append("0-");
  return JsonResponse(200, base::CompactJson(document));
}

Response UploadSessions::Handle(Request& request) {
  const std::string_view query = request.Query();
  const auto mark = query.rfind(kSignature);
  if (mark == std::string_view::npos ||
      !signer_.Check(query.substr(0, mark), query.substr(mark + kSignature.size()))) {
    throw Unauthenticated("The upload URL is not valid.");
  }
  std::string id = FieldOr(ParseForm(query.substr(0, mark)), "guid", "");
  std::erase(id, '\'');
  const SessionPtr session = Find(id);
  if (request.method == "PUT") return Put(id, *session, request);
  if (request.method == "DELETE") {
    Forget(id);
    return EmptyResponse(204);
  }
  if (request.method != "GET" && request.method != "HEAD") {
    throw MethodNotAllowed("GET, HEAD, PUT, DELETE");
  }
  const std::lock_guard lock(session->mutex);
  if (!session->writer) throw SessionGone();
  return Status(*session, 200);
}

Response UploadSessions::Put(const std::string& id, Session& session, Request& request) {
  const Piece piece = ReadPiece(request);
  const std::lock_guard lock(session.mutex);
  if (!session.writer) throw SessionGone();
  CheckPiece(session, piece);
  session.drive.CheckStore(session.file, piece.total);
  Receive(session, piece, request.body);
  session.total = piece.total;
  if (!piece.IsLast()) return Status(session, 202);

  const ContentPtr content = std::exchange(session.writer, nullptr)->Finish();
  Forget(id);
  const auto stored = session.drive.StoreFile(session.file, content);
  return ItemResponse(stored.created ? 201 : 200, stored.item,
                      json_.OfItem(stored.item, session.drive, session.user));
}

/// "bytes 0-327679/1000000"
UploadSessions::Piece UploadSessions::ReadPiece(const Request& request) {
  constexpr std::string_view kUnit = "bytes ";
  const std::string header = request.Header("Content-Range").value_or("");
  std::string_view text = header;
  if (!text.starts_with(kUnit)) throw InvalidRequest("The Content-Range header is missing.");
  text.remove_prefix(kUnit.size());
  const auto first = TakeNumber(text, '-');
  const auto last = first ? TakeNumber(text, '/') : std::nullopt;
  const auto total = last ? TakeNumber(text, '\0') : std::nullopt;
  if (!total || *last < *first || *last >= *total) {
    throw InvalidRequest("The Content-Range header is malformed.");
  }
  const Piece piece{.first = *first, .last = *last, .total = *total};
  const auto length = request.Header("Content-Length");
  if (length && *length != std::to_string(piece.Size())) {
    throw InvalidRequest("Content-Length and Content-Range do not agree.");
  }
  if (piece.Size() >= kPieceLimit) {
    throw ServiceError(413, "invalidRequest", "The fragment must be smaller than 60 MiB.");
  }
  if (!piece.IsLast() && piece.Size() % kGranule != 0) {
    throw InvalidRequest("The fragment's size must be a multiple of 320 KiB.");
  }
  return piece;
}

void UploadSessions::CheckPiece(const Session& session, const Piece& piece) {
  if (session.total && *session.total != piece.total) {
    throw InvalidRequest("The total size differs from that of earlier fragments.");
  }
  const std::uint64_t expected = session.writer->Size();
  if (piece.first < expected) {
    throw WrongRange("fragmentOverlap", "The fragment overlaps with data already received.");
  }
  if (piece.first > expected) {
    throw WrongRange("fragmentOutOfOrder", "The fragment does not follow the last one.");
  }
}

void UploadSessions::Receive(Session& session, const Piece& piece, BodyReader& body) {
  constexpr std::size_t kBuffer = std::size_t{256} * 1024;
  std::vector<char> buffer(kBuffer);
  std::uint64_t received = 0;
  session.writer->Mark();
  try {
    while (const std::size_t count = body.Read(buffer)) {
      received += count;
      if (received > piece.Size()) break;
      session.writer->Append(std::span<const char>(buffer).first(count));
    }
    if (received != piece.Size()) {
      throw InvalidRequest("The fragment's length is not that of its Content-Range.");
    }
  } catch (...) {
    // A fragment counts whole or not at all: the client sends it again.
    session.writer->RollBack();
    throw;
  }
}

Response UploadSessions::Status(const Session& session, int status) {
  Json::Value document;
  document["expirationDateTime"] = Rfc3339(session.expires);
  document["nextExpectedRanges"].append(std::to_string(session.writer->Size()) + "-");
  return JsonResponse(status, base::CompactJson(document));
}

UploadSessions::SessionPtr UploadSessions::Find(const std::string& id) {
  const std::lock_guard lock(mutex_);
  const auto found = sessions_.find(id);
  if (found == sessions_.end() || found->second->expires <= Now()) throw SessionGone();
  return found->second;
}

void UploadSessions::Forget(const std::string& id) {
  const std::lock_guard lock(mutex_);
  sessions_.erase(id);
}

void UploadSessions::ExpireAll() {
  const std::lock_guard lock(mutex_);
  sessions_.clear();
}

}  // namespace emulator
