#include "emulator/http/faults.h"

#include <stdexcept>
#include <utility>

#include <regex.h>

#include "emulator/http/service_error.h"
#include "emulator/text/gzip.h"

namespace emulator {
namespace {

Fault CutFault(Cut cut, Place place, std::uint64_t after_bytes) {
  Fault fault;
  fault.kind = Fault::Kind::kCut;
  fault.cut = cut;
  fault.place = place;
  fault.after_bytes = after_bytes;
  return fault;
}

std::shared_ptr<const regex_t> Compile(const std::string& pattern) {
  auto* expression = new regex_t;
  const int error = regcomp(expression, pattern.c_str(), REG_EXTENDED | REG_NOSUB);
  if (error == 0) {
    return {expression, [](regex_t* compiled) {
              regfree(compiled);
              delete compiled;
            }};
  }
  delete expression;
  throw std::invalid_argument("a fault's target is no regular expression: " + pattern);
}

/// The documented codes of the statuses a client meets; anything else is a general exception.
std::string DefaultErrorCode(int status) {
  switch (status) {
    case 401:
      return "unauthenticated";
    case 403:
      return "accessDenied";
    case 404:
      return "itemNotFound";
    case 409:
      return "nameAlreadyExists";
    case 412:
      return "resourceModified";
    case 416:
      return "invalidRange";
    case 429:
      return "activityLimitReached";
    case 503:
      return "serviceNotAvailable";
    case 507:
      return "quotaLimitReached";
    default:
      return status < 500 ? "invalidRequest" : "generalException";
  }
}

void ReplaceBody(const Fault& fault, Response& response) {
  response.content = nullptr;
  response.text = fault.body;
  response.SetHeader("Content-Type", fault.content_type);
}

void Compress(Response& response) {
  std::string bytes = response.text;
  if (response.content) {
    bytes.resize(static_cast<std::size_t>(response.content_length));
    response.content->Read(response.content_offset, bytes);
    response.content = nullptr;
  }
  response.text = Gzip(bytes);
  response.SetHeader("Content-Encoding", "gzip");
}

}  // namespace

Fault Fault::Status(int status, std::optional<std::chrono::seconds> retry_after) {
  Fault fault;
  fault.kind = Kind::kStatus;
  fault.status = status;
  fault.body = ErrorText(DefaultErrorCode(status), "The service was told to answer this.");
  if (retry_after) fault.headers.emplace_back("Retry-After", std::to_string(retry_after->count()));
  return fault;
}

Fault Fault::Reset(Place place, std::uint64_t after_bytes) {
  return CutFault(Cut::kReset, place, after_bytes);
}

Fault Fault::Stall(Place place, std::uint64_t after_bytes, std::chrono::milliseconds duration) {
  Fault fault = CutFault(Cut::kStall, place, after_bytes);
  fault.stall = duration;
  return fault;
}

Fault Fault::Truncate(std::uint64_t after_bytes) {
  return CutFault(Cut::kClose, Place::kInBody, after_bytes);
}

Fault Fault::WrongLength(std::int64_t error) {
  Fault fault;
  fault.length_error = error;
  return fault;
}

Fault Fault::Body(std::string text, std::string content_type) {
  Fault fault;
  fault.kind = Kind::kBody;
  fault.body = std::move(text);
  fault.content_type = std::move(content_type);
  return fault;
}

Fault Fault::ExpiredToken() {
  Fault fault;
  fault.kind = Kind::kOldToken;
  fault.status = 401;
  return fault;
}

Fault Fault::Redirect(int status, std::string location) {
  Fault fault;
  fault.kind = Kind::kRedirect;
  fault.status = status;
  fault.location = std::move(location);
  return fault;
}

Fault Fault::On(std::string new_method, std::string new_target) const {
  Fault fault = *this;
  fault.method = std::move(new_method);
  fault.target = std::move(new_target);
  fault.target_is_regex = false;
  return fault;
}

Fault Fault::OnRegex(std::string new_method, std::string pattern) const {
  Fault fault = On(std::move(new_method), std::move(pattern));
  fault.target_is_regex = true;
  return fault;
}

Fault Fault::Nth(int n) const {
  Fault fault = *this;
  fault.nth = n;
  return fault;
}

Fault Fault::Times(int count) const {
  Fault fault = *this;
  fault.times = count;
  return fault;
}

bool FaultPlan::Entry::Matches(const Request& request) const {
  if (!fault.method.empty() && fault.method != request.method) return false;
  if (!pattern) return request.target.find(fault.target) != std::string::npos;
  return regexec(pattern.get(), request.target.c_str(), 0, nullptr, 0) == 0;
}

void FaultPlan::Add(Fault fault) {
  Entry entry;
  if (fault.target_is_regex) entry.pattern = Compile(fault.target);
  entry.fault = std::move(fault);
  const std::lock_guard lock(mutex_);
  entries_.push_back(std::move(entry));
}

void FaultPlan::Clear() {
  const std::lock_guard lock(mutex_);
  entries_.clear();
}

std::optional<Fault> FaultPlan::Take(const Request& request) {
  const std::lock_guard lock(mutex_);
  std::optional<Fault> taken;
  for (auto& entry : entries_) {
    if (!entry.Matches(request)) continue;
    // Every match is counted, also one that an earlier fault takes: "the second request" is the
    // second whatever else is scripted.
    ++entry.seen;
    const bool left = entry.fault.times == Fault::kAlways || entry.fired < entry.fault.times;
    if (taken || entry.seen < entry.fault.nth || !left) continue;
    ++entry.fired;
    taken = entry.fault;
  }
  return taken;
}

std::vector<Fault> FaultPlan::Unfired() const {
  const std::lock_guard lock(mutex_);
  std::vector<Fault> unfired;
  for (const auto& entry : entries_) {
    const bool always = entry.fault.times == Fault::kAlways;
    if (always ? entry.fired > 0 : entry.fired >= entry.fault.times) continue;
    unfired.push_back(entry.fault);
    if (!always) unfired.back().times = entry.fault.times - entry.fired;
  }
  return unfired;
}

bool ReachesService(const Fault& fault) {
  switch (fault.kind) {
    case Fault::Kind::kNone:
    case Fault::Kind::kBody:
      return true;
    case Fault::Kind::kCut:
      return fault.place == Place::kInHeaders || fault.place == Place::kInBody ||
             (fault.place == Place::kBeforeAnswer &&
              (fault.takes_effect || fault.cut == Cut::kStall));
    case Fault::Kind::kStatus:
    case Fault::Kind::kOldToken:
    case Fault::Kind::kRedirect:
      return false;
  }
  return true;
}

Response AnswerInPlace(const Fault& fault) {
  Response response;
  response.status = fault.status;
  if (fault.kind == Fault::Kind::kOldToken) {
    return ErrorResponse(Unauthenticated("The access token has expired."));
  }
  if (fault.kind == Fault::Kind::kRedirect) response.SetHeader("Location", fault.location);
  if (fault.kind == Fault::Kind::kStatus) ReplaceBody(fault, response);
  return response;
}

void Spoil(const Fault& fault, Response& response) {
  if (fault.kind == Fault::Kind::kBody) ReplaceBody(fault, response);
  for (const auto& [name, value] : fault.headers) response.SetHeader(name, value);
  if (fault.gzip) Compress(response);
  response.delivery = {.delay = fault.delay,
                       .interim = fault.interim,
                       .cut = fault.cut,
                       .place = fault.place,
                       .after_bytes = fault.after_bytes,
                       .stall = fault.stall,
                       .length_error = fault.length_error,
                       .chunked = fault.chunked,
                       .trailers = fault.trailers,
                       .close_after = fault.close_after};
}

}  // namespace emulator
