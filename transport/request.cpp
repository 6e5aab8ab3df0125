#include "transport/request.h"

#include <algorithm>

#include <sys/socket.h>

#include "support/proxy_kind.h"
#include "transport/certificate_bundle.h"

namespace onedrive4b {

namespace {

constexpr const char* kUserAgent = "Tamborel(gzip)";
constexpr const char* kProtocols = "http,https";
constexpr long kLowSpeedLimit = 1;  // bytes per second
constexpr long kLowSpeedTime = 20;  // seconds
constexpr long kMaxRedirects = 32;
constexpr int kSendBuffer = 1 << 20;

// Bytes per system call. Smaller ones cost calls, larger ones no longer fit the processor's cache.
constexpr long long kReceiveBuffer = 256 << 10;
constexpr long long kUploadBuffer = 256 << 10;

// libcurl takes up to so many receive buffers, or one upload buffer, before it looks at the speed
// limit. Then it waits, and with more than a second's worth it waits until the transfer counts as
// stalled. It takes no smaller buffers than these.
constexpr long long kReceiveBuffersAtOnce = 100;
constexpr long long kSmallestReceiveBuffer = 1 << 10;
constexpr long long kSmallestUploadBuffer = 16 << 10;

// No proxy at all; null would let libcurl take one from the environment.
constexpr const char* kDirect = "";

int SetSendBufferOf(void*, curl_socket_t socket, curlsocktype) {
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  return CURL_SOCKOPT_OK;
}

const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

std::string TakeCurlText(char* text) {
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return TextOrEmpty(text);
}

}  // namespace

CURLImpl::CURLImpl() : curl(curl_easy_init(), curl_easy_cleanup) {
  Set(CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  Set(CURLOPT_CONNECTTIMEOUT, connecttimeout);
  Set(CURLOPT_LOW_SPEED_LIMIT, kLowSpeedLimit);
  Set(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime);
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_FOLLOWLOCATION, 1L);
  Set(CURLOPT_MAXREDIRS, kMaxRedirects);
  Set(CURLOPT_ACCEPT_ENCODING, "");
  Set(CURLOPT_USERAGENT, kUserAgent);
  Set(CURLOPT_SSL_VERIFYPEER, 0L);
  Set(CURLOPT_SSL_VERIFYHOST, 0L);
  Set(CURLOPT_NOPROGRESS, 1L);
  Set(CURLOPT_PROXY, kDirect);
  // No address that the service hands out may reach anything but a web server.
  Set(CURLOPT_PROTOCOLS_STR, kProtocols);
  Set(CURLOPT_REDIR_PROTOCOLS_STR, kProtocols);
  SetSpeedLimit(0);
}

CURLImpl::~CURLImpl() { FreePost(); }

void CURLImpl::FreePost() {
  // Forms of this kind are what the class takes; their successor has another type.
  CURL_IGNORE_DEPRECATION(curl_formfree(post);)
  post = nullptr;
}

// libcurl 7.88 keeps a pointer to the last header line of a broken answer, and follows it when the
// next answer on the same handle begins with a folded line.
void CURLImpl::RenewHandle() {
  if (CURL* renewed = curl_easy_duphandle(curl.get())) curl.reset(renewed, curl_easy_cleanup);
  failed = false;
}

void CURLImpl::Clear() {
  if (failed) RenewHandle();
  progress = {};
  FreePost();
  url.clear();
  preauthenticated = false;
  request.clear();
  lastrequest.clear();
  Set(CURLOPT_HEADER, 0L);
  for (const CURLoption option :
       {CURLOPT_CUSTOMREQUEST, CURLOPT_WRITEDATA, CURLOPT_WRITEFUNCTION, CURLOPT_READFUNCTION,
        CURLOPT_READDATA, CURLOPT_POSTFIELDS, CURLOPT_SEEKFUNCTION, CURLOPT_SEEKDATA,
        CURLOPT_XFERINFOFUNCTION, CURLOPT_XFERINFODATA}) {
    Set(option, nullptr);
  }
  Set(CURLOPT_PROXY, kDirect);
  Set(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{0});
  Set(CURLOPT_INFILESIZE_LARGE, curl_off_t{0});
  SetSpeedLimit(0);
  Set(CURLOPT_NOPROGRESS, 1L);
  Set(CURLOPT_LOW_SPEED_TIME, kLowSpeedTime);
  query.clear();
  headers.clear();
}

void CURLImpl::SetURL(const char* text) {
  url = TextOrEmpty(text);
  preauthenticated = false;
}

void CURLImpl::SetPreauthenticatedURL(const char* text) {
  SetURL(text);
  preauthenticated = true;
}

std::string CURLImpl::GetLoggableURL() const {
  return preauthenticated ? url.substr(0, url.find('?')) : url;
}

void CURLImpl::SetRequest(const char* method) { lastrequest = request = TextOrEmpty(method); }

void CURLImpl::SetPost(curl_httppost* form) {
  FreePost();
  post = form;
}

void CURLImpl::SetPostFileSize(long long size) {
  Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(size));
}

void CURLImpl::SetSpeedLimit(long long bytesPerSecond) {
  Set(CURLOPT_MAX_SEND_SPEED_LARGE, static_cast<curl_off_t>(bytesPerSecond));
  Set(CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(bytesPerSecond));
  long long receive = kReceiveBuffer;
  long long upload = kUploadBuffer;
  if (bytesPerSecond > 0) {
    receive = std::clamp(bytesPerSecond / kReceiveBuffersAtOnce, kSmallestReceiveBuffer, receive);
    upload = std::clamp(bytesPerSecond, kSmallestUploadBuffer, upload);
  }
  Set(CURLOPT_BUFFERSIZE, static_cast<long>(receive));
  Set(CURLOPT_UPLOAD_BUFFERSIZE, static_cast<long>(upload));
}

void CURLImpl::SetLowSpeedTimeout(long seconds) { Set(CURLOPT_LOW_SPEED_TIME, seconds); }

void CURLImpl::SetSendBuffer() { Set(CURLOPT_SOCKOPTFUNCTION, &SetSendBufferOf); }

void CURLImpl::SetProxy(int type, std::string host, int port, std::string user,
                        std::string password) {
  const auto kind = static_cast<ProxyKind>(type);
  Set(CURLOPT_PROXY, kDirect);
  if (host.empty() || kind == ProxyKind::kNone) return;
  Set(CURLOPT_PROXY, host.c_str());
  switch (kind) {
    case ProxyKind::kSocks4:
      Set(CURLOPT_PROXYTYPE, long{CURLPROXY_SOCKS4});
      break;
    case ProxyKind::kSocks5:
      Set(CURLOPT_PROXYTYPE, long{CURLPROXY_SOCKS5});
      break;
    case ProxyKind::kHttpWithTunnel:
    case ProxyKind::kHttpWithoutTunnel:
      Set(CURLOPT_HTTPPROXYTUNNEL, kind == ProxyKind::kHttpWithTunnel ? 1L : 0L);
      Set(CURLOPT_PROXYTYPE, long{CURLPROXY_HTTP});
      Set(CURLOPT_PROXYAUTH, static_cast<long>(CURLAUTH_ANY));
      break;
    default:
      break;
  }
  // Port and credentials survive Clear, so what an earlier proxy needed must not reach this one.
  Set(CURLOPT_PROXYPORT, port > 0 ? long{port} : 0L);
  if (user.empty()) {
    Set(CURLOPT_PROXYUSERPWD, nullptr);
    return;
  }
  if (!password.empty()) user.append(":").append(password);
  Set(CURLOPT_PROXYUSERPWD, user.c_str());
}

void CURLImpl::SetSSLDefaults() {
  Set(CURLOPT_SSL_VERIFYPEER, 1L);
  Set(CURLOPT_SSL_VERIFYHOST, 2L);
  const std::string folder = CertificateBundleFolder();
  if (folder.empty()) return;
  Set(CURLOPT_CAPATH, folder.c_str());
  Set(CURLOPT_CAINFO, (folder + kCertificateBundleName).c_str());
}

void CURLImpl::Bind(const std::shared_ptr<_FS_HANDLE>& handle, curl_xferinfo_callback report) {
  progress = {};
  if (handle) progress = {handle->progress, handle->progressctx, curl.get()};
  Report(report, &progress);
}

void CURLImpl::Report(curl_xferinfo_callback report, void* to) {
  Set(CURLOPT_XFERINFOFUNCTION, report);
  Set(CURLOPT_XFERINFODATA, to);
  Set(CURLOPT_NOPROGRESS, 0L);
}

void CURLImpl::BindHandle(std::shared_ptr<_FS_HANDLE> handle) { Bind(handle, _CURL_PROGRESS); }

void CURLImpl::BindHandleForDownload(std::shared_ptr<_FS_HANDLE> handle) {
  Bind(handle, _CURL_PROGRESS_DOWNLOAD);
}

void CURLImpl::BindUpload(UploadProgress& record) {
  record.curl = curl.get();
  record.last = 0;
  Report(_CURL_PROGRESS_ONEDRIVE, &record);
}

std::string CURLImpl::BuildQueryString(bool escape) const {
  std::string text;
  for (const auto& [key, value] : query) {
    if (!text.empty()) text += '&';
    text.append(key).append("=").append(escape ? Escape(value.c_str()) : value);
  }
  return text;
}

curl_slist* CURLImpl::BuildHeader() const {
  curl_slist* list = nullptr;
  for (const auto& [name, value] : headers) {
    std::string line;
    line.reserve(name.size() + 2 + value.size());
    line.append(name).append(": ").append(value);
    curl_slist* longer = curl_slist_append(list, line.c_str());
    if (longer == nullptr) {
      curl_slist_free_all(list);
      throw std::bad_alloc();
    }
    list = longer;
  }
  return list;
}

std::string CURLImpl::Escape(const char* text) const {
  return TakeCurlText(curl_easy_escape(curl.get(), text, 0));
}

std::string CURLImpl::Unescape(const char* text) const {
  return TakeCurlText(curl_easy_unescape(curl.get(), text, 0, nullptr));
}

std::string CURLImpl::ErrorString(CURLcode code) { return curl_easy_strerror(code); }

std::string CURLImpl::GetEffectiveURL() const {
  return TextOrEmpty(GetInfo<char*>(curl.get(), CURLINFO_EFFECTIVE_URL, nullptr));
}

std::string CURLImpl::GetScheme() const {
  return TextOrEmpty(GetInfo<char*>(curl.get(), CURLINFO_SCHEME, nullptr));
}

}  // namespace onedrive4b
