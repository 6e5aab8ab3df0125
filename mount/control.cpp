#include "mount/control.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "base/files.h"
#include "base/json_text.h"
#include "host/failure.h"
#include "host/text.h"

namespace mounted {
namespace {

constexpr std::size_t kLongestLine = std::size_t{1} << 16U;
/// So long an asker may take to say what it wants, in milliseconds.
constexpr int kPatience = 5000;

std::filesystem::path RuntimeFolder() {
  const char* folder = std::getenv("XDG_RUNTIME_DIR");  // NOLINT(concurrency-mt-unsafe)
  if (folder != nullptr && *folder == '/') return std::filesystem::path(folder) / "onedrive4b";
  return std::filesystem::path("/tmp") / ("onedrive4b-" + std::to_string(::getuid()));
}

sockaddr_un AddressOf(const std::filesystem::path& path) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path.string();
  if (text.size() >= sizeof(address.sun_path)) {
    throw host::Failure(host::FailureKind::kLocal, "the path of the control socket is too long");
  }
  std::memcpy(address.sun_path, text.c_str(), text.size());
  return address;
}

base::UniqueFd NewSocket() {
  base::UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) throw host::LocalFailure("open", "the control socket", errno);
  return socket;
}

/// A folder that only this user can enter: /tmp is everybody's.
void MakePrivateFolder(const std::filesystem::path& folder) {
  struct stat status = {};
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw host::LocalFailure("make", folder.string(), errno);
  }
  if (::lstat(folder.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) ||
      status.st_uid != ::getuid() || (status.st_mode & 077) != 0) {
    throw host::Failure(host::FailureKind::kLocal,
                        host::Quoted(folder.string()) + " is not a private folder of this user");
  }
}

bool Connect(const base::UniqueFd& socket, const std::filesystem::path& path) {
  const sockaddr_un address = AddressOf(path);
  return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
}

bool SendLine(int socket, const Json::Value& line) {
  const std::string text = base::CompactJson(line) + '\n';
  std::size_t sent = 0;
  while (sent < text.size()) {
    const ssize_t part = ::send(socket, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
    if (part < 0 && errno == EINTR) continue;
    if (part <= 0) return false;
    sent += static_cast<std::size_t>(part);
  }
  return true;
}

/// Reads whole lines and gives them on until `take` says false, the end, or the patience is over.
void ReadLines(int socket, int patience, const std::function<bool(const std::string&)>& take) {
  std::string text;
  std::array<char, 4096> piece{};
  for (;;) {
    pollfd ready{.fd = socket, .events = POLLIN, .revents = 0};
    const int polled = ::poll(&ready, 1, patience);
    if (polled < 0 && errno == EINTR) continue;
    if (polled <= 0) return;
    const ssize_t got = ::recv(socket, piece.data(), piece.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return;
    text.append(piece.data(), static_cast<std::size_t>(got));
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n')) {
      if (!take(text.substr(0, end))) return;
      text.erase(0, end + 1);
    }
    if (patience >= 0 && text.size() > kLongestLine) return;
  }
}

bool IsAllowed(int socket) {
  ucred peer{};
  socklen_t size = sizeof(peer);
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) return false;
  return peer.uid == ::getuid() || peer.uid == 0;
}

}  // namespace

std::filesystem::path SocketPath(const std::string& mount_point) {
  return RuntimeFolder() / (std::to_string(std::hash<std::string>{}(mount_point)) + ".socket");
}

ControlServer::ControlServer(const std::string& mount_point, Handler handler)
    : path_(SocketPath(mount_point)), handler_(std::move(handler)), listener_(NewSocket()) {
  MakePrivateFolder(path_.parent_path());
  if (Connect(NewSocket(), path_)) {
    throw host::Failure(host::FailureKind::kUsage,
                        host::Quoted(mount_point) + " is mounted already");
  }
  ::unlink(path_.c_str());
  const sockaddr_un address = AddressOf(path_);
  if (::bind(listener_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::listen(listener_.get(), 16) != 0) {
    throw host::LocalFailure("make", path_.string(), errno);
  }
  thread_ = std::thread([this] { Accept(); });
}

ControlServer::~ControlServer() {
  ending_ = true;
  ::shutdown(listener_.get(), SHUT_RDWR);
  thread_.join();
  RemoveDone(true);
  ::unlink(path_.c_str());
}

void ControlServer::RemoveDone(bool all) {
  for (auto asker = askers_.begin(); asker != askers_.end();) {
    if (!all && !asker->done) {
      ++asker;
      continue;
    }
    if (all) ::shutdown(asker->socket.get(), SHUT_RD);
    asker->thread.join();
    asker = askers_.erase(asker);
  }
}

void ControlServer::Accept() {
  while (!ending_) {
    base::UniqueFd socket(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (!socket) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    RemoveDone(false);
    if (!IsAllowed(socket.get())) continue;
    Asker& asker = askers_.emplace_back();
    asker.socket = std::move(socket);
    asker.thread = std::thread([this, &asker] { Answer(asker); });
  }
}

void ControlServer::Answer(Asker& asker) {
  const int socket = asker.socket.get();
  ReadLines(socket, kPatience, [&](const std::string& line) {
    const auto question = base::ParseJson(line);
    if (question && question->isObject()) {
      handler_(*question, [&](const Json::Value& answer) { return SendLine(socket, answer); });
    }
    return false;
  });
  ::shutdown(socket, SHUT_RDWR);
  asker.done = true;
}

void AskMount(const std::string& mount_point, const Json::Value& question,
              const std::function<void(const Json::Value&)>& take) {
  const base::UniqueFd socket = NewSocket();
  if (!Connect(socket, SocketPath(mount_point))) {
    throw host::Failure(host::FailureKind::kUsage,
                        "no drive is mounted at " + host::Quoted(mount_point));
  }
  SendLine(socket.get(), question);
  ReadLines(socket.get(), -1, [&](const std::string& line) {
    if (const auto answer = base::ParseJson(line)) take(*answer);
    return true;
  });
}

}  // namespace mounted
