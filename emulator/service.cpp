#include "emulator/service.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

#include "emulator/api/content_service.h"
#include "emulator/api/download_links.h"
#include "emulator/api/drive_api.h"
#include "emulator/api/item_json.h"
#include "emulator/api/unified_api.h"
#include "emulator/api/upload_sessions.h"
#include "emulator/authority/authority.h"
#include "emulator/authority/discovery.h"
#include "emulator/drive/demo_drive.h"
#include "emulator/http/server.h"
#include "emulator/http/service_error.h"
#include "emulator/http/throttle.h"
#include "emulator/store/folder_lock.h"

namespace emulator {
namespace {

constexpr const char* kClientId = "5f3c7b52-9d0e-4c1b-8a43-2f6d1c7e90ab";
constexpr const char* kEndpointPath = "/personal/demo_contoso_example/_api/v2.0";
constexpr const char* kDownloadPath = "/personal/demo_contoso_example/_layouts/15/download.aspx";

Identity DemoUser() {
  return {"8b6f1c1e-4a62-4c55-9a0f-6a1d2f0e7c11", "Demo User", "demo@contoso.example"};
}

Identity OtherUser() {
  return {"c2d7e0aa-13f4-4f0b-b7ce-95f0c1b3a622", "Robin Vale", "robin@contoso.example"};
}

/// Passes a body on and remembers what it was.
class RecordingBody : public BodyReader {
 public:
  explicit RecordingBody(BodyReader& body) : body_(body) {}

  std::size_t Read(std::span<char> into) override {
    constexpr std::size_t kKept = std::size_t{64} * 1024;
    const std::size_t count = body_.Read(into);
    size_ += count;
    text_.append(into.data(), std::min(count, kKept - text_.size()));
    return count;
  }
  bool AwaitsContinue() const override { return body_.AwaitsContinue(); }

  /// Reads on until `limit` bytes of the body have come, or its end.
  void Discard(std::uint64_t limit) {
    std::array<char, 16384> buffer;
    while (size_ < limit) {
      const auto wanted = std::min<std::uint64_t>(buffer.size(), limit - size_);
      if (Read(std::span<char>(buffer).first(static_cast<std::size_t>(wanted))) == 0) return;
    }
  }

  std::uint64_t Size() const { return size_; }
  const std::string& Text() const { return text_; }

 private:
  BodyReader& body_;
  std::uint64_t size_ = 0;
  std::string text_;
};

bool CutsRequest(const Fault& fault) {
  return fault.kind == Fault::Kind::kCut && fault.place == Place::kInRequestBody;
}

/// Whether any of the answer leaves.
bool IsAnswered(const Delivery& delivery) {
  const bool before =
      delivery.place == Place::kBeforeAnswer || delivery.place == Place::kInRequestBody;
  const bool passes =
      delivery.cut == Cut::kNone || (delivery.cut == Cut::kStall && delivery.stall.count() > 0);
  return passes || !before;
}

std::filesystem::path Below(const std::filesystem::path& directory, const char* name) {
  return directory.empty() ? directory : directory / name;
}

std::optional<ServerIdentity> IdentityFor(const ServiceOptions& options) {
  if (!options.tls) return std::nullopt;
  if (options.data_directory.empty()) return MakeServerIdentity(options.host_name);
  return KeepServerIdentity(options.data_directory / "certificates.pem", options.host_name);
}

}  // namespace

class Service::Impl {
 public:
  explicit Impl(ServiceOptions options);
  ~Impl();

  Response Handle(Request& request, Response (Impl::*route)(Request&));
  Response RouteService(Request& request);
  Response RouteContent(Request& request);
  Response RouteUnified(Request& request);
  Response Discover(const Request& request);
  Response Act(Request& request, const std::optional<Fault>& fault,
               Response (Impl::*route)(Request&));
  void SaveDrives();

  const ServiceOptions options;
  const std::optional<FolderLock> folder_lock;
  const std::optional<ServerIdentity> identity;
  std::atomic<std::chrono::milliseconds> latency;
  const std::shared_ptr<std::atomic<std::uint64_t>> bandwidth;
  Throttle throttle;
  HttpServer service_server;
  HttpServer content_server;
  HttpServer unified_server;
  FaultPlan faults;
  RequestLog log;
  RequestCounter counter;
  Drive user_drive;
  Drive other_drive;
  Authority authority;
  DownloadLinks links;
  ItemJson json;
  UploadSessions sessions;
  DriveApi api;
  ContentService contents;
  UnifiedApi unified;
  std::mutex mutex;
  std::optional<std::string> services_document;  // guarded by mutex
};

Service::Impl::Impl(ServiceOptions the_options)
    : options(std::move(the_options)),
      folder_lock(options.data_directory.empty()
                      ? std::nullopt
                      : std::make_optional<FolderLock>(options.data_directory)),
      identity(IdentityFor(options)),
      latency(options.latency),
      bandwidth(std::make_shared<std::atomic<std::uint64_t>>(options.bandwidth)),
      throttle(options.request_rate),
      service_server({.host_name = options.host_name,
                      .port = options.port,
                      .tls = identity,
                      .bandwidth = bandwidth}),
      content_server(
          {.host_name = options.host_name, .port = 0, .tls = identity, .bandwidth = bandwidth}),
      unified_server(
          {.host_name = options.host_name, .port = 0, .tls = identity, .bandwidth = bandwidth}),
      log(options.recorded_requests),
      counter(kEndpointPath),
      user_drive({.owner = DemoUser(), .directory = Below(options.data_directory, "demo")}),
      other_drive({.owner = OtherUser(), .directory = Below(options.data_directory, "robin")}),
      authority({.origin = service_server.Origin(),
                 .client_id = kClientId,
                 .resources = {service_server.Origin() + "/",
                               service_server.Origin() + "/discovery/", unified_server.Origin()},
                 .access_token_lifetime = options.access_token_lifetime,
                 .device_code_lifetime = options.device_code_lifetime,
                 .device_poll_interval = options.device_poll_interval,
                 .revoke_used_refresh_tokens = options.revoke_used_refresh_tokens,
                 .refresh_token_file = Below(options.data_directory, "tokens.journal")},
                DemoUser()),
      links(content_server.Origin() + kDownloadPath, options.download_link_lifetime),
      json({.endpoint = service_server.Origin() + kEndpointPath,
            .web_root = service_server.Origin() + "/personal"},
           links),
      sessions({.base = content_server.Origin() + kEndpointPath + "/drive",
                .lifetime = options.upload_session_lifetime},
               json),
      api({.endpoint_path = kEndpointPath,
           .resource = service_server.Origin() + "/",
           .page_size = options.page_size,
           .simple_upload_limit = options.simple_upload_limit},
          {.authority = authority,
           .drives = {&user_drive, &other_drive},
           .json = json,
           .links = links,
           .sessions = sessions}),
      contents({&user_drive, &other_drive}, links, sessions),
      unified(unified_server.Origin(),
              {.authority = authority, .drives = {&user_drive, &other_drive}, .json = json}) {
  if (options.seed && user_drive.IsEmpty() && other_drive.IsEmpty()) {
    SeedDemoDrives(user_drive, other_drive);
  }
  SaveDrives();
  service_server.Start([this](Request& request) { return Handle(request, &Impl::RouteService); });
  content_server.Start([this](Request& request) { return Handle(request, &Impl::RouteContent); });
  unified_server.Start([this](Request& request) { return Handle(request, &Impl::RouteUnified); });
}

Service::Impl::~Impl() {
  service_server.Stop();
  content_server.Stop();
  unified_server.Stop();
  try {
    SaveDrives();
  } catch (const std::exception&) {
    // Every change was saved when it was made; a disk that fails now has been reported then.
  }
}

void Service::Impl::SaveDrives() {
  user_drive.Save();
  other_drive.Save();
}

Response Service::Impl::Handle(Request& request, Response (Impl::*route)(Request&)) {
  const std::uint64_t number = log.Begin(request);
  const bool counts = counter.Add(request) != &CountsByKind::sign_in;
  const auto fault = faults.Take(request);
  RecordingBody body(request.body);
  Request seen{request.method, request.target, request.headers, request.origin, body};
  Response response;
  try {
    const auto wait = counts ? throttle.Admit() : std::nullopt;
    response = wait ? ErrorResponse(TooManyRequests(*wait)) : Act(seen, fault, route);
    if (fault) Spoil(*fault, response);
    response.delivery.delay += latency.load();
    if (fault && CutsRequest(*fault)) {
      body.Discard(fault->after_bytes);
    } else if (!body.AwaitsContinue()) {
      body.Discard(UINT64_MAX);
    }
  } catch (const ConnectionLost&) {
    log.Finish(number, body.Size(), body.Text(), 0);
    throw;
  }
  const int status = IsAnswered(response.delivery) ? response.status : 0;
  log.Finish(number, body.Size(), body.Text(), status);
  if (options.observer) {
    options.observer({.method = request.method,
                      .target = request.target,
                      .headers = request.headers,
                      .origin = request.origin,
                      .body_size = body.Size(),
                      .body = body.Text(),
                      .status = status});
  }
  return response;
}

Response Service::Impl::Act(Request& request, const std::optional<Fault>& fault,
                            Response (Impl::*route)(Request&)) {
  if (fault && !ReachesService(*fault)) return AnswerInPlace(*fault);
  if (fault) {
    for (const auto& name : fault->ignored_headers) {
      std::erase_if(request.headers,
                    [&](const auto& header) { return FindHeader({header}, name).has_value(); });
    }
  }
  try {
    Response response = (this->*route)(request);
    if (request.method != "GET" && request.method != "HEAD") SaveDrives();
    return response;
  } catch (const ServiceError& error) {
    return ErrorResponse(error);
  } catch (const ConnectionLost&) {
    throw;
  } catch (const std::exception& error) {
    return ErrorResponse({500, "generalException", error.what()});
  }
}

Response Service::Impl::RouteService(Request& request) {
  const std::string_view path = request.Path();
  if (Authority::IsMine(path)) return authority.Handle(request);
  if (path == "/discovery/v2.0/me/services" && options.discovery) return Discover(request);
  if (path.starts_with(std::string(kEndpointPath) + "/")) return api.Handle(request);
  throw ItemNotFound();
}

Response Service::Impl::RouteContent(Request& request) { return contents.Handle(request); }

Response Service::Impl::RouteUnified(Request& request) { return unified.Handle(request); }

Response Service::Impl::Discover(const Request& request) {
  if (request.method != "GET" && request.method != "POST" && request.method != "HEAD") {
    throw MethodNotAllowed("GET, HEAD, POST");
  }
  authority.Authenticate(request, service_server.Origin() + "/discovery/");
  const std::lock_guard lock(mutex);
  if (services_document) return JsonResponse(200, *services_document);
  return JsonResponse(200,
                      ServicesDocument({.origin = service_server.Origin(),
                                        .drive_endpoint = service_server.Origin() + kEndpointPath,
                                        .drive_resource = service_server.Origin() + "/"}));
}

Service::Service(ServiceOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
Service::~Service() = default;

std::string Service::Origin() const { return impl_->service_server.Origin(); }
std::string Service::ContentOrigin() const { return impl_->content_server.Origin(); }
std::string Service::UnifiedApiUrl() const { return impl_->unified_server.Origin(); }
std::string Service::AuthorityUrl() const { return Origin() + "/organizations"; }
std::string Service::TokenUrl() const { return Origin() + "/common/oauth2/token"; }
std::string Service::DeviceCodeUrl() const { return Origin() + "/common/oauth2/devicecode"; }
std::string Service::DiscoveryUrl() const { return Origin() + "/discovery/v2.0/me/services"; }
std::string Service::DiscoveryResource() const { return Origin() + "/discovery/"; }
std::string Service::ServiceEndpoint() const { return Origin() + kEndpointPath; }
std::string Service::ServiceResource() const { return Origin() + "/"; }
std::string Service::ClientId() const { return kClientId; }

const std::string& Service::CertificateAuthorityPem() const {
  static const std::string none;
  return impl_->identity ? impl_->identity->authority_pem : none;
}

std::string Service::IssueRefreshToken() { return impl_->authority.IssueRefreshToken(DemoUser()); }
void Service::ExpireAccessTokens() { impl_->authority.ExpireAccessTokens(); }
void Service::ExpireDownloadLinks() { impl_->links.ExpireAll(); }
void Service::ExpireUploadSessions() { impl_->sessions.ExpireAll(); }
void Service::RevokeRefreshTokens() { impl_->authority.RevokeRefreshTokens(); }
bool Service::ApproveDevice(const std::string& user_code) {
  return impl_->authority.AnswerDevice(user_code, true);
}
bool Service::DeclineDevice(const std::string& user_code) {
  return impl_->authority.AnswerDevice(user_code, false);
}

void Service::AddFault(Fault fault) { impl_->faults.Add(std::move(fault)); }
void Service::ClearFaults() { impl_->faults.Clear(); }
std::vector<Fault> Service::UnfiredFaults() const { return impl_->faults.Unfired(); }
std::vector<RecordedRequest> Service::Requests() const { return impl_->log.All(); }
CountsByKind Service::RequestCounts() const { return impl_->counter.Get(); }

void Service::ClearRequests() {
  impl_->log.Clear();
  impl_->counter.Clear();
}

void Service::SetLatency(std::chrono::milliseconds latency) { impl_->latency = latency; }
void Service::SetBandwidth(std::uint64_t bytes_per_second) { *impl_->bandwidth = bytes_per_second; }
void Service::SetRequestRate(std::size_t per_second) { impl_->throttle.SetRate(per_second); }

void Service::Vanish() {
  impl_->service_server.Vanish();
  impl_->content_server.Vanish();
  impl_->unified_server.Vanish();
}

void Service::ComeBack() {
  impl_->content_server.ComeBack();
  impl_->unified_server.ComeBack();
  impl_->service_server.ComeBack();
}

Drive& Service::UserDrive() { return impl_->user_drive; }
Drive& Service::OtherDrive() { return impl_->other_drive; }

void Service::SetServicesDocument(std::optional<std::string> json) {
  const std::lock_guard lock(impl_->mutex);
  impl_->services_document = std::move(json);
}

}  // namespace emulator
