// Every operation meets every fault of the wire. Hunts results that claim what did not happen,
// bytes and fields of a broken answer that reach the host, repetitions without end, tokens at
// foreign places, and objects, locks or pooled requests that a fault leaves unusable.
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "emulator/text/gzip.h"
#include "tests/reliability/fault_cell.h"

namespace {

using emulator::Cut;
using emulator::Place;
using emulator::Response;
using faults::Document;
using faults::FaultService;
using faults::Identities;
using faults::Operation;
using faults::Outcome;

enum class Effect {
  kNoConnection,
  kNoAnswer,    // no answer comes, or not all of it
  kNoDocument,  // a success whose body is not what it should be
  kRefusal,     // a status of 400 or more
  kUnhandled,   // a status below 400 that the module has no use for
  kNothing,     // the operation gets what it wants in the end
};

struct Fault {
  std::string name;
  Effect effect;
  std::function<void(FaultService&, const std::string& key)> apply;
  int requests = 1;              // most that may arrive at the faulty place
  int status = 0;                // of a refusal
  std::vector<long> waits = {};  // seconds
  std::string body = {};         // in place of the document
  bool costly = false;           // for one answer that is read, one that is not, one that streams
  int heals_after = 1;           // calls
};

Fault Spoiled(std::string name, Effect effect, FaultService::Spoil spoil, int requests = 1) {
  return {
      std::move(name), effect,
      [spoil = std::move(spoil)](FaultService& service, auto& key) { service.Break(key, spoil); },
      requests};
}

// So that there is a body to be spoiled.
void GiveBody(Response& response) {
  if (response.status == 204) response = emulator::JsonResponse(200, "{}");
}

// A kept connection that breaks before the first byte of an answer is tried once more by libcurl.
Fault Broken(std::string name, Cut cut, Place place, std::uint64_t after_bytes = 0) {
  const bool begun = place == Place::kInHeaders || place == Place::kInBody;
  return Spoiled(
      std::move(name), Effect::kNoAnswer,
      [=](Response& response) {
        GiveBody(response);
        response.delivery.cut = cut;
        response.delivery.place = place;
        response.delivery.after_bytes = after_bytes;
      },
      begun ? 1 : 2);
}

Fault Text(std::string name, std::string text, int status = 200) {
  Fault fault = Spoiled(std::move(name), Effect::kNoDocument, [=](Response& response) {
    response = emulator::JsonResponse(status, text);
  });
  fault.body = std::move(text);
  return fault;
}

Fault Encoded(std::string name, std::string coding, std::string text) {
  return Spoiled(std::move(name), Effect::kNoAnswer, [=](Response& response) {
    GiveBody(response);
    response.text = text;
    response.SetHeader("Content-Encoding", coding);
  });
}

Fault Chunked(std::string name, std::string text) {
  return Spoiled(std::move(name), Effect::kNoAnswer, [=](Response& response) {
    GiveBody(response);
    response.text = text;
    response.SetHeader("Transfer-Encoding", "chunked");
    response.delivery.close_after = true;
  });
}

Fault Status(int status, int requests = 1, std::vector<long> waits = {}) {
  Fault fault = Spoiled(
      "status " + std::to_string(status), Effect::kRefusal,
      [=](Response& response) {
        response = {};
        response.status = status;
        response.text = "<html>MARKER page of an error</html>";
        response.SetHeader("Content-Type", "text/html");
      },
      requests);
  fault.status = status;
  fault.waits = std::move(waits);
  return fault;
}

Fault Redirect(std::string name, Effect effect,
               std::function<std::string(const FaultService&, const std::string& path)> to,
               int requests = 1) {
  return {std::move(name), effect,
          [to = std::move(to)](FaultService& service, const std::string& key) {
            const std::string path = key.substr(key.find(' ') + 1);
            const std::string location = to(service, path.substr(0, path.find(' ')));
            service.Break(key, [=](Response& response) {
              response = emulator::EmptyResponse(307);
              if (!location.empty()) response.SetHeader("Location", location);
            });
          },
          requests};
}

Fault Identity(std::string name, Effect effect, std::optional<emulator::ServerIdentity> identity) {
  return {std::move(name), effect, [identity = std::move(identity)](FaultService& service, auto&) {
            service.Listen(identity);
          }};
}

Fault Once(int status, std::vector<long> waits) {
  return {"status " + std::to_string(status) + ", once",
          Effect::kNothing,
          [=](FaultService& service, const std::string& key) {
            service.Break(
                key, [=](Response& response) { response = emulator::EmptyResponse(status); }, 1);
          },
          2,
          status,
          std::move(waits)};
}

std::vector<Fault> ConnectionFaults() {
  const Identities& ids = Identities::Get();
  return {
      {"connection refused", Effect::kNoConnection,
       [](FaultService& service, auto&) { service.Refuse(); }},
      Identity("TLS: unknown authority", Effect::kNoConnection, ids.unknown),
      Identity("TLS: wrong name", Effect::kNoConnection, ids.wrong_name),
      Identity("TLS: expired certificate", Effect::kNoConnection, ids.expired),
      Identity("TLS: the same, not expired", Effect::kNothing, ids.self_signed),
      Identity("plain HTTP on the TLS port", Effect::kNoConnection, std::nullopt),
      Broken("reset in the request", Cut::kReset, Place::kInRequestBody),
      Broken("reset before the answer", Cut::kReset, Place::kBeforeAnswer),
      Broken("reset in the headers", Cut::kReset, Place::kInHeaders),
      Broken("reset in the body", Cut::kReset, Place::kInBody, 1),
      Broken("closed before the answer", Cut::kClose, Place::kBeforeAnswer),
      Broken("closed in the headers", Cut::kClose, Place::kInHeaders),
      Broken("body cut short", Cut::kClose, Place::kInBody, 1),
  };
}

Fault WrongLength(std::string name, Effect effect, int error) {
  return Spoiled(std::move(name), effect, [=](Response& response) {
    GiveBody(response);
    response.delivery.length_error = error;
  });
}

std::vector<Fault> BodyFaults() {
  using enum Effect;
  std::string deep_objects;
  for (int level = 0; level < 100000; ++level) deep_objects += R"({"value":)";
  std::vector<Fault> all{
      WrongLength("Content-Length too large", kNoAnswer, 7),
      WrongLength("Content-Length too small", kNoDocument, -1),
      Chunked("chunk size is no number", "zz\r\n{}\r\n0\r\n\r\n"),
      Chunked("chunk size beyond all bounds", "ffffffffffffffffff\r\n{}\r\n0\r\n\r\n"),
      Chunked("chunks that do not end", "2\r\n{}\r\n"),
      Spoiled("header line of 200 KB", kNoAnswer,
              [](Response& response) { response.SetHeader("X", std::string(200000, 'x')); }),
      Encoded("gzip that is none", "gzip", "no gzip at all"),
      Encoded("unknown encoding", "no-such", "{}"),
      Encoded("gzip bomb of 257 MiB", "gzip",
              emulator::Gzip(std::string(std::size_t{257} << 20, '\0'))),
      Text("empty body", ""),
      Text("status 204 without body", "", 204),
      Text("HTML page with status 200", "<html>It works!</html>"),
      Text("JSON cut short", R"({"id":"i","name":"n","value":[{"id")"),
      Text("array instead of an object", "[1]"),
      Text("arrays nested 100,000 deep", std::string(100000, '[')),
      Text("objects nested 100,000 deep", std::move(deep_objects)),
  };
  // The last byte of what was asked for does not wait for the end of the answer.
  all[0].body = std::string(faults::kReadLength, 'c');
  all[1].body = std::string(faults::kReadLength - 1, 'c');
  all[1].heals_after = 2;  // libcurl finds the byte left over at the next request
  all[8].costly = true;
  return all;
}

std::vector<Fault> StatusFaults() {
  using enum Effect;
  const auto here = [](const FaultService& service, const std::string& path) {
    return service.Origin() + path;
  };
  std::vector<Fault> all{Status(429, 6, {1, 2, 4, 8, 16}), Status(401, 2), Once(429, {1}),
                         Once(401, {})};
  for (const int status : {400, 403, 404, 409, 412, 416, 423, 500, 502, 503, 504, 507}) {
    all.push_back(Status(status));
  }
  all.push_back(Redirect("redirect to itself", kNoAnswer, here, 33));
  all.push_back(Redirect("redirect to another origin", kNothing,
                         [](const FaultService& service, const std::string& path) {
                           return service.ForeignOrigin() + path;
                         }));
  for (const char* url : {"file:///etc/hostname", "ftp://127.0.0.1/", "gopher://127.0.0.1/",
                          "https://files.localhost:99999/", "https://[/"}) {
    all.push_back(Redirect(std::string("redirect to ") + url, kNoAnswer,
                           [=](const FaultService&, const std::string&) { return url; }));
  }
  all.push_back(Redirect("redirect to nowhere", kUnhandled,
                         [](const FaultService&, const std::string&) { return ""; }));
  all.push_back(Spoiled("status 304", kUnhandled,
                        [](Response& response) { response = emulator::EmptyResponse(304); }));
  return all;
}

// No failure, by the rule for answers that nobody handles, but where it would leave a file nowhere
// or an address unknown.
void ExpectUnhandled(const Operation& operation, Outcome& outcome) {
  const bool needed =
      operation.document == Document::kServices || operation.document == Document::kSession ||
      operation.document == Document::kBytes || operation.key.starts_with("PUT /up");
  // With the address unknown it believes to be signed in, and asks for it no more.
  if (operation.document == Document::kServices) outcome.heals_after = faults::kNeedsNewObject;
  if (needed) return;
  outcome.result = SUCCESS;
  // The account stays what it was, and a change that needs no more than a look goes on.
  if (operation.document == Document::kAccount || operation.name.ends_with("lookup")) {
    outcome.reached.reset();
  }
}

// The first request fails, whichever was meant.
void ExpectNoConnection(const Operation& operation, Outcome& outcome) {
  outcome.before = 0;
  for (const Operation& first : faults::Operations()) {
    if (first.run != operation.run || first.before != 0) continue;
    outcome.result = first.failure;
    outcome.reached = first.untouched;
    return;
  }
}

AERROR ResultOfRead(int status) {
  return status == 403   ? ACCESS_DENIED
         : status == 404 ? FILE_NOT_FOUND
         : status == 416 ? HANDLE_EOF
                         : FAILED;
}

Outcome Expected(const Operation& operation, const Fault& fault) {
  Outcome outcome{operation.failure, operation.untouched, fault.requests, operation.before,
                  fault.waits};
  outcome.heals_after = fault.heals_after;
  const bool bytes = operation.document == Document::kBytes;
  switch (fault.effect) {
    case Effect::kNothing:
      outcome.result = SUCCESS;
      outcome.reached = operation.whole;
      break;
    case Effect::kNoConnection:
      ExpectNoConnection(operation, outcome);
      break;
    case Effect::kNoDocument:
      // Nothing of the body is wanted, or a file that may hold anything.
      if (bytes || operation.document == Document::kNone) outcome.result = SUCCESS;
      if (bytes) outcome.reached = fault.body.substr(0, faults::kReadLength);
      break;
    case Effect::kRefusal:
      if (bytes) outcome.result = ResultOfRead(fault.status);
      break;
    case Effect::kUnhandled:
      ExpectUnhandled(operation, outcome);
      break;
    case Effect::kNoAnswer:
      if (bytes) outcome.reached = fault.body;
      break;
  }
  if (operation.document == Document::kServices && fault.status == 401) {
    // The renewal asks discovery, too, and signs in by itself when it is let.
    outcome.requests = 3;
    outcome.result = AUTH_FAILED;
    outcome.reached.reset();
    outcome.before = fault.effect == Effect::kNothing ? 1 : 0;
  }
  return outcome;
}

class FaultMatrix : public faults::FaultTest {
 protected:
  void Run(const std::vector<Fault>& faults) {
    for (const Operation& operation : faults::Operations()) {
      faults::Rig rig(!operation.connects);
      for (const Fault& fault : faults) {
        if (fault.costly && operation.name != "GetFileInfo" && operation.name != "Delete" &&
            operation.name != "Read") {
          continue;
        }
        SCOPED_TRACE(operation.name + " meets " + fault.name);
        Meet(rig, operation, Expected(operation, fault),
             [&] { fault.apply(rig.service, operation.key); });
      }
    }
  }
};

TEST_F(FaultMatrix, Connections) { Run(ConnectionFaults()); }
TEST_F(FaultMatrix, Bodies) { Run(BodyFaults()); }
TEST_F(FaultMatrix, StatusesAndRedirects) { Run(StatusFaults()); }

}  // namespace
