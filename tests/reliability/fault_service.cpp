#include "tests/reliability/fault_service.h"

#include <array>
#include <memory>
#include <stdexcept>
#include <utility>

#include <netinet/in.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tests/web_server.h"

namespace faults {

namespace {

using emulator::ServerIdentity;

constexpr const char* kHost = "files.localhost";  // one that the certificates of others do not name

template <auto Free>
struct Freer {
  template <typename T>
  void operator()(T* object) const {
    Free(object);
  }
};
using Bio = std::unique_ptr<BIO, Freer<BIO_free_all>>;

Bio Reader(const std::string& pem) {
  return Bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
}

// Its own authority, valid until `seconds` from now.
ServerIdentity SelfSigned(long seconds) {
  ServerIdentity identity = emulator::MakeServerIdentity(kHost);
  const std::unique_ptr<X509, Freer<X509_free>> certificate(
      PEM_read_bio_X509(Reader(identity.certificate_pem).get(), nullptr, nullptr, nullptr));
  const std::unique_ptr<EVP_PKEY, Freer<EVP_PKEY_free>> key(
      PEM_read_bio_PrivateKey(Reader(identity.key_pem).get(), nullptr, nullptr, nullptr));
  X509* x509 = certificate.get();
  X509_gmtime_adj(X509_getm_notAfter(x509), seconds);
  X509_set_issuer_name(x509, X509_get_subject_name(x509));
  X509_EXTENSION_free(
      X509_delete_ext(x509, X509_get_ext_by_NID(x509, NID_authority_key_identifier, -1)));
  const Bio text(BIO_new(BIO_s_mem()));
  char* data = nullptr;
  if (X509_sign(x509, key.get(), EVP_sha256()) <= 0 || PEM_write_bio_X509(text.get(), x509) != 1) {
    throw std::runtime_error("cannot sign a certificate");
  }
  const long length = BIO_get_mem_data(text.get(), &data);
  identity.certificate_pem.assign(data, static_cast<std::size_t>(length));
  identity.authority_pem = identity.certificate_pem;
  return identity;
}

sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// Port 0: the kernel chooses one.
int BindPort(std::uint16_t& port) {
  const int holder = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int yes = 1;
  ::setsockopt(holder, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  sockaddr_in address = Loopback(port);
  socklen_t length = sizeof address;
  if (::bind(holder, reinterpret_cast<const sockaddr*>(&address), length) != 0 ||
      ::getsockname(holder, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    throw std::runtime_error("cannot have a port");
  }
  port = ntohs(address.sin_port);
  return holder;
}

std::string KeyOf(const emulator::Request& request) {
  std::string key = request.method + " " + std::string(request.Path());
  const std::string range = request.Header("Content-Range").value_or("bytes 0-");
  return range.starts_with("bytes 0-") ? key : key + " later";
}

}  // namespace

const Identities& Identities::Get() {
  constexpr long kHour = 3600;
  static const Identities all{emulator::MakeServerIdentity(kHost),
                              emulator::MakeServerIdentity("localhost"), SelfSigned(-kHour),
                              SelfSigned(kHour), emulator::MakeServerIdentity(kHost)};
  static const TrustedAuthority bundle(all.good.authority_pem + all.wrong_name.authority_pem +
                                       all.expired.authority_pem + all.self_signed.authority_pem);
  return all;
}

FaultService::FaultService()
    : holder_(BindPort(port_)),
      origin_("https://" + std::string(kHost) + ":" + std::to_string(port_)),
      foreign_({.host_name = kHost, .tls = Identities::Get().good}) {
  foreign_.Start([this](emulator::Request& request) { return Serve(request, true); });
  Listen(Identities::Get().good);
}

FaultService::~FaultService() {
  StopListening();
  foreign_.Stop();
  ::close(holder_);
}

void FaultService::Put(const std::string& key, int status, const std::string& body,
                       emulator::HeaderList headers) {
  emulator::Response response;
  response.status = status;
  response.text = body;
  response.headers = std::move(headers);
  const std::lock_guard guard(mutex_);
  answers_[key] = std::move(response);
}

emulator::Response FaultService::Honest(const std::string& key) const {
  const std::lock_guard guard(mutex_);
  return answers_.at(key);
}

void FaultService::Break(const std::string& key, Spoil spoil, int times) {
  const std::lock_guard guard(mutex_);
  broken_key_ = key;
  spoil_ = std::move(spoil);
  left_ = times;
}

void FaultService::StopListening() {
  honest_listener_ = false;
  silent_.reset();
  server_.reset();
  for (const int socket : std::exchange(full_, {})) ::close(socket);
}

void FaultService::ListenSilently() {
  StopListening();
  silent_.emplace(port_, std::nullopt);
}

void FaultService::LeaveWaiting() {
  StopListening();
  full_.push_back(BindPort(port_));
  ::listen(full_[0], 0);
  for (int i = 0; i < 3; ++i) {
    full_.push_back(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = Loopback(port_);
    ::connect(full_.back(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
  }
}

void FaultService::Listen(const std::optional<ServerIdentity>& identity) {
  StopListening();
  server_.emplace(emulator::HttpServerOptions{.host_name = kHost, .port = port_, .tls = identity});
  server_->Start([this](emulator::Request& request) { return Serve(request, false); });
  honest_listener_ = identity && identity->key_pem == Identities::Get().good.key_pem;
}

void FaultService::Heal() {
  Break("", nullptr, 0);
  if (!honest_listener_) Listen(Identities::Get().good);
}

std::vector<Seen> FaultService::Take() {
  const std::lock_guard guard(mutex_);
  return std::exchange(seen_, {});
}

emulator::Response FaultService::Serve(emulator::Request& request, bool foreign) {
  const std::string key = KeyOf(request);
  const std::string authorization = request.Header("Authorization").value_or("");
  std::array<char, 65536> piece;
  std::unique_lock lock(mutex_);
  seen_.push_back({key, authorization, foreign});
  const bool spoiled = !foreign && spoil_ && key == broken_key_ && left_ != 0;
  if (spoiled && left_ > 0) --left_;
  const bool admitted = foreign || key.starts_with("PUT /up") || authorization == "Bearer A" ||
                        authorization == "Bearer B";
  const auto found = answers_.find(key);
  emulator::Response response =
      found != answers_.end() ? found->second : emulator::JsonResponse(404, "{}");
  if (!admitted) response = emulator::JsonResponse(401, "{}");
  const Spoil spoil = spoiled ? spoil_ : nullptr;
  lock.unlock();
  if (spoil) spoil(response);
  if (response.delivery.place != emulator::Place::kInRequestBody) {
    while (request.body.Read(piece) > 0) {
    }
  }
  return response;
}

}  // namespace faults
