#include "transport/request.h"

#include <algorithm>

#include <dlfcn.h>
#include <sys/socket.h>

#include "support/proxy_kind.h"
#include "transport/certificate_bundle.h"
#include "transport/transfer_handle.h"

namespace onedrive4b {

namespace {

constexpr const char* kUserAgent = "Tamborel(gzip)";
constexpr const char* kProtocols = "http,https";
constexpr long kLowSpeedLimit = 1;  // bytes per second
constexpr long kLowSpeedTime = 20;  // seconds
constexpr long kMaxRedirects = 32;
constexpr int kSendBuffer = 1 << 20;

// Bytes per system call. Smaller buffers cost more calls; larger ones do not fit into the
// processor's cache.
constexpr long long kReceiveBuffer = 256 << 10;
constexpr long long kUploadBuffer = 256 << 10;

// libcurl moves up to this many receive buffers, or one upload buffer, before it checks the speed
// limit. If that is more than a second's worth of bytes, it then waits so long that the transfer
// counts as stalled. libcurl accepts no smaller buffers than these.
constexpr long long kReceiveBuffersAtOnce = 100;
constexpr long long kSmallestReceiveBuffer = 1 << 10;
constexpr long long kSmallestUploadBuffer = 16 << 10;

// No proxy; with null libcurl would use the environment's proxy.
constexpr const char* kDirect = "";

int SetSendBufferOf(void*, curl_socket_t socket, curlsocktype) {
  setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &kSendBuffer, sizeof kSendBuffer);
  return CURL_SOCKOPT_OK;
}

// A transfer that is stopped while a name is looked up leaves libcurl's resolver thread behind. The
// library must not be unloaded, together with the module, before that thread has ended.
void KeepLibcurlLoaded() {
  Dl_info library{};
  if (dladdr(reinterpret_cast<void*>(&curl_easy_init), &library) != 0) {
    dlopen(library.dli_fname, RTLD_LAZY | RTLD_NOLOAD | RTLD_NODELETE);
  }
}

const char* TextOrEmpty(const char* text) { return text != nullptr ? text : ""; }

std::shared_ptr<CURLSH> NewShare() {
  std::shared_ptr<CURLSH> share(curl_share_init(),
                                [](CURLSH* owned) { curl_share_cleanup(owned); });
  // One thread at a time uses the request object, so the share needs no locks.
  for (const curl_lock_data data :
       {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS}) {
    curl_share_setopt(share.get(), CURLSHOPT_SHARE, data);
  }
  return share;
}

std::string TakeCurlText(char* text) {
  const std::unique_ptr<char, decltype(&curl_free)> owned(text, curl_free);
  return TextOrEmpty(text);
}

}  // namespace

CURLImpl::CURLImpl() : kept(NewShare()) {
  Adopt(curl_easy_init());
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
  // A URL from the service must not reach anything but a web server.
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

// The handle holds on to the share, which must go last.
void CURLImpl::Adopt(CURL* handle) {
  curl.reset(handle, [share = kept](CURL* owned) { curl_easy_cleanup(owned); });
  Set(CURLOPT_SHARE, kept.get());
}

void CURLImpl::RenewHandle() {
  if (CURL* renewed = curl_easy_duphandle(curl.get())) Adopt(renewed);
  handle_is_used_up = false;
}

void CURLImpl::Clear() {
  if (handle_is_used_up) RenewHandle();
  progress = {};
  stop_watch = {};
  body_seek = {};
  body_is_read = false;
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
  if (form == post) return;
  FreePost();
  post = form;
}

void CURLImpl::SetBodySeek(curl_seek_callback seek, void* body) {
  body_seek = {seek, body};
  Set(CURLOPT_SEEKFUNCTION, seek);
  Set(CURLOPT_SEEKDATA, body);
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
  // Port and credentials survive Clear: those of an earlier proxy must not be sent to this one.
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
  stop_watch = {report, to, nullptr};
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

void CURLImpl::StopWith(std::shared_ptr<_FS_HANDLE> handle) {
  stop_watch.handle = std::move(handle);
  Set(CURLOPT_XFERINFOFUNCTION, &ReportUnlessStopped);
  Set(CURLOPT_XFERINFODATA, &stop_watch);
  Set(CURLOPT_NOPROGRESS, 0L);
  // Ending while a name is looked up must not wait for the resolver's thread.
  Set(CURLOPT_QUICK_EXIT, 1L);
}

int CURLImpl::ReportUnlessStopped(void* watch, curl_off_t download_total, curl_off_t downloaded,
                                  curl_off_t upload_total, curl_off_t uploaded) {
  const auto& stop_watch = *static_cast<const StopWatch*>(watch);
  if (stop_watch.report != nullptr) {
    stop_watch.report(stop_watch.to, download_total, downloaded, upload_total, uploaded);
  }
  if (!IsStopped(*stop_watch.handle)) return 0;
  KeepLibcurlLoaded();
  return 1;
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
