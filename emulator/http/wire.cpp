#include "emulator/http/wire.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl.hpp>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "emulator/http/message.h"

namespace emulator {
namespace {

namespace asio = boost::asio;
using asio::ip::tcp;

[[noreturn]] void ThrowLost(const boost::system::error_code& error) {
  throw ConnectionLost(error.message());
}

tcp::socket& Lowest(tcp::socket& socket) { return socket; }
tcp::socket& Lowest(asio::ssl::stream<tcp::socket>& stream) { return stream.next_layer(); }

void Handshake(tcp::socket&) {}
void Handshake(asio::ssl::stream<tcp::socket>& stream) {
  boost::system::error_code error;
  stream.handshake(asio::ssl::stream_base::server, error);
  if (error) ThrowLost(error);
}

void SayGoodbye(tcp::socket&) {}
void SayGoodbye(asio::ssl::stream<tcp::socket>& stream) {
  // shutdown() waits for the peer's close_notify after it has sent ours. With the receiving side
  // shut it finds the end at once.
  ::shutdown(stream.next_layer().native_handle(), SHUT_RD);
  boost::system::error_code ignored;
  stream.shutdown(ignored);
}

template <typename Stream>
class SocketWire : public Wire {
 public:
  explicit SocketWire(Stream stream)
      : stream_(std::move(stream)), fd_(Lowest(stream_).native_handle()) {}

  void Open() override { Handshake(stream_); }

  std::size_t Read(std::span<char> into) override {
    boost::system::error_code error;
    const std::size_t count = stream_.read_some(asio::buffer(into.data(), into.size()), error);
    if (error == asio::error::eof || error == asio::ssl::error::stream_truncated) return 0;
    if (error) ThrowLost(error);
    return count;
  }

  void Write(std::string_view bytes) override {
    // asio::write would pass on no more than 64 KiB at a time.
    while (!bytes.empty()) {
      if (broken_) throw ConnectionLost("the network is gone");
      boost::system::error_code error;
      bytes.remove_prefix(stream_.write_some(asio::buffer(bytes.data(), bytes.size()), error));
      if (error) ThrowLost(error);
    }
  }

  void Close() override {
    if (broken_) {
      Reset();
      return;
    }
    SayGoodbye(stream_);
    const std::lock_guard lock(mutex_);
    if (!open_) return;
    ::shutdown(fd_, SHUT_WR);
    CloseSocket();
  }

  void Reset() override {
    // Closing with unsent bytes would throw them away, and the peer would never see the place
    // where it is to be cut off.
    int unsent = 0;
    while (::ioctl(fd_, SIOCOUTQ, &unsent) == 0 && unsent > 0) {
      if (!Wait(std::chrono::milliseconds(1))) break;
    }
    const std::lock_guard lock(mutex_);
    if (!open_) return;
    const linger discard{.l_onoff = 1, .l_linger = 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_LINGER, &discard, sizeof discard);
    CloseSocket();
  }

  bool Wait(std::chrono::milliseconds duration) override {
    pollfd peer{.fd = fd_, .events = POLLRDHUP, .revents = 0};
    return ::poll(&peer, 1, static_cast<int>(duration.count())) == 0;
  }

  void WaitForPeerToGo() override {
    pollfd peer{.fd = fd_, .events = POLLRDHUP, .revents = 0};
    while (::poll(&peer, 1, -1) < 0 && errno == EINTR) {
    }
  }

  void Abort() noexcept override {
    const std::lock_guard lock(mutex_);
    if (open_) ::shutdown(fd_, SHUT_RDWR);
  }

  void Break() noexcept override {
    const std::lock_guard lock(mutex_);
    broken_ = true;
    if (!open_) return;
    // Ends a read without a sign to the peer. A write is stuck only where bytes could not be sent;
    // it ends with the sending side, whose FIN stays behind these bytes until the reset drops both.
    int unsent = 0;
    const bool writing = ::ioctl(fd_, SIOCOUTQNSD, &unsent) == 0 && unsent > 0;
    ::shutdown(fd_, writing ? SHUT_RDWR : SHUT_RD);
  }

 private:
  void CloseSocket() {
    open_ = false;
    boost::system::error_code ignored;
    Lowest(stream_).close(ignored);
  }

  Stream stream_;
  const int fd_;
  // Keeps Abort from shutting down a descriptor that was closed and given to someone else.
  std::mutex mutex_;
  bool open_ = true;
  std::atomic<bool> broken_ = false;
};

int OnlyHttp11(SSL*, const unsigned char** chosen, unsigned char* length,
               const unsigned char* offered, unsigned offered_length, void*) {
  static constexpr std::array<unsigned char, 9> kProtocols = {8,   'h', 't', 't', 'p',
                                                              '/', '1', '.', '1'};
  unsigned char* found = nullptr;
  const int result = SSL_select_next_proto(&found, length, kProtocols.data(), kProtocols.size(),
                                           offered, offered_length);
  *chosen = found;
  return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

void Configure(asio::ssl::context& context, const ServerIdentity& identity) {
  context.set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_tlsv1 |
                      asio::ssl::context::no_tlsv1_1);
  context.use_certificate_chain(asio::buffer(identity.certificate_pem));
  context.use_private_key(asio::buffer(identity.key_pem), asio::ssl::context::pem);
  SSL_CTX_set_alpn_select_cb(context.native_handle(), OnlyHttp11, nullptr);
}

std::string SystemMessage(int error) { return std::generic_category().message(error); }

base::UniqueFd ListenOn(const sockaddr* address, socklen_t length) {
  base::UniqueFd socket(::socket(address->sa_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int yes = 1;
  if (!socket) return socket;
  ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
  if (address->sa_family == AF_INET6) {
    ::setsockopt(socket.get(), IPPROTO_IPV6, IPV6_V6ONLY, &yes, sizeof yes);
  }
  if (::bind(socket.get(), address, length) != 0 || ::listen(socket.get(), SOMAXCONN) != 0) {
    return base::UniqueFd();
  }
  return socket;
}

base::UniqueFd ListenV4(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  base::UniqueFd socket = ListenOn(reinterpret_cast<const sockaddr*>(&address), sizeof address);
  if (!socket) {
    throw std::runtime_error("cannot listen on 127.0.0.1 port " + std::to_string(port) + ": " +
                             SystemMessage(errno));
  }
  return socket;
}

base::UniqueFd ListenV6(std::uint16_t port) {
  sockaddr_in6 address{};
  address.sin6_family = AF_INET6;
  address.sin6_port = htons(port);
  address.sin6_addr = in6addr_loopback;
  return ListenOn(reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

std::uint16_t PortOf(int fd) {
  sockaddr_in address{};
  socklen_t length = sizeof address;
  ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  return ntohs(address.sin_port);
}

}  // namespace

struct Listener::Impl {
  asio::io_context io;
  std::optional<asio::ssl::context> tls;
  base::UniqueFd v4;
  // Clients try "localhost" as ::1 first; without IPv6 they fall back by themselves.
  base::UniqueFd v6;
  base::UniqueFd wake;  // ends a wait in Accept when `state` has changed
  std::uint16_t port = 0;

  enum class State { kOpen, kPaused, kStopped };
  std::mutex mutex;
  State state = State::kOpen;  // guarded by mutex

  State CurrentState() {
    const std::lock_guard lock(mutex);
    return state;
  }

  void Wake() const noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto written = ::write(wake.get(), &one, sizeof one);
  }

  std::unique_ptr<Wire> Wrap(base::UniqueFd accepted, bool is_v6) {
    const int yes = 1;
    ::setsockopt(accepted.get(), IPPROTO_TCP, TCP_NODELAY, &yes, sizeof yes);
    tcp::socket socket(io, is_v6 ? tcp::v6() : tcp::v4(), accepted.Release());
    if (!tls) return std::make_unique<SocketWire<tcp::socket>>(std::move(socket));
    using TlsStream = asio::ssl::stream<tcp::socket>;
    return std::make_unique<SocketWire<TlsStream>>(TlsStream(std::move(socket), *tls));
  }
};

Listener::Listener(std::uint16_t port, const std::optional<ServerIdentity>& tls)
    : impl_(std::make_unique<Impl>()) {
  impl_->wake = base::UniqueFd(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
  if (!impl_->wake) throw std::runtime_error("eventfd: " + SystemMessage(errno));
  impl_->v4 = ListenV4(port);
  impl_->port = PortOf(impl_->v4.get());
  impl_->v6 = ListenV6(impl_->port);
  if (tls) Configure(impl_->tls.emplace(asio::ssl::context::tls_server), *tls);
}

Listener::~Listener() = default;

std::uint16_t Listener::Port() const { return impl_->port; }

std::unique_ptr<Wire> Listener::Accept() {
  for (;;) {
    const Impl::State state = impl_->CurrentState();
    if (state == Impl::State::kStopped) return nullptr;
    std::array<pollfd, 3> sockets = {{{impl_->wake.get(), POLLIN, 0},
                                      {impl_->v4.get(), POLLIN, 0},
                                      {impl_->v6.get(), POLLIN, 0}}};
    // A paused socket would be reported as hung up without end.
    const nfds_t watched = state == Impl::State::kPaused ? 1 : sockets.size();
    if (::poll(sockets.data(), watched, -1) < 0) continue;
    if (sockets[0].revents != 0) {
      std::uint64_t count = 0;
      [[maybe_unused]] const auto taken = ::read(impl_->wake.get(), &count, sizeof count);
      continue;
    }
    const bool is_v6 = sockets[1].revents == 0;
    const int listening = is_v6 ? impl_->v6.get() : impl_->v4.get();
    base::UniqueFd accepted(::accept4(listening, nullptr, nullptr, SOCK_CLOEXEC));
    if (accepted) return impl_->Wrap(std::move(accepted), is_v6);
    // Out of descriptors: the pending connection stays pending, so give others time to end.
    if (errno == EMFILE || errno == ENFILE) ::poll(sockets.data(), 1, 20);
  }
}

void Listener::Stop() noexcept {
  const std::lock_guard lock(impl_->mutex);
  impl_->state = Impl::State::kStopped;
  impl_->Wake();
}

void Listener::Pause() noexcept {
  const std::lock_guard lock(impl_->mutex);
  if (impl_->state != Impl::State::kOpen) return;
  impl_->state = Impl::State::kPaused;
  impl_->Wake();
  // On Linux the socket stops listening, resets what waits to be accepted, and stays bound.
  ::shutdown(impl_->v4.get(), SHUT_RD);
  if (impl_->v6) ::shutdown(impl_->v6.get(), SHUT_RD);
}

void Listener::Resume() {
  const std::lock_guard lock(impl_->mutex);
  if (impl_->state != Impl::State::kPaused) return;
  if (::listen(impl_->v4.get(), SOMAXCONN) != 0 ||
      (impl_->v6 && ::listen(impl_->v6.get(), SOMAXCONN) != 0)) {
    throw std::runtime_error("cannot listen on port " + std::to_string(impl_->port) +
                             " again: " + SystemMessage(errno));
  }
  impl_->state = Impl::State::kOpen;
  impl_->Wake();
}

}  // namespace emulator
