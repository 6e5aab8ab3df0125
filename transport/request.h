// One reusable HTTP request over one libcurl easy handle.
//
// A request is configured, run with one of the transfer operations, and cleared. Connections, TLS
// and proxy set-up survive the clearing, so the next request finds a warm connection. They even
// survive the easy handle, which is replaced from time to time: libcurl 7.88 counts the kept
// connections that a server has closed over the life of a handle, and fails at the sixth.
//
// One thread at a time. libcurl holds pointers into the object, so it is never copied.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <utility>

#include <curl/curl.h>

#include "onedrive4b/records.h"
#include "transport/easy_option.h"
#include "transport/message_body.h"
#include "transport/progress.h"
#include "transport/transfer_result.h"

struct evbuffer;

namespace onedrive4b {

class CURLImpl {
 public:
  /// HTTP/1.1 over http or https only; follows redirects; accepts every encoding; 10 s to connect;
  /// ends after 20 s below 1 byte/s. Checks no certificates before SetSSLDefaults.
  CURLImpl();
  CURLImpl(const CURLImpl&) = delete;
  CURLImpl& operator=(const CURLImpl&) = delete;
  virtual ~CURLImpl();

  /// Resets everything that belongs to one request. Keeps connections, TLS set-up, user agent and
  /// the proxy's kind, port and credentials; the proxy's host is dropped, so the proxy is off.
  virtual void Clear();

  /// Sends a request without body. Both arguments null: the response is collected. Otherwise the
  /// body streams to a libcurl write function and its data, and the result holds neither body nor
  /// headers.
  virtual _CURLRTN PerformGet(void* writeFunction, void* writeData);

  /// Sends `body`, which libcurl may rewind. The response is collected.
  virtual _CURLRTN PerformPost(std::string body);

  /// Sends `size` bytes from a libcurl read function and its data; with size -1 the data is a
  /// BodyCursor. Without read function the query parameters are the body, form-encoded. The
  /// response is collected.
  virtual _CURLRTN PerformPost(void* readFunction, void* readData, long long size);

  void SetURL(const char* text);
  /// A URL whose query authorises the request, so that it must not be logged.
  void SetPreauthenticatedURL(const char* text);
  /// Replaces the transfer's own method.
  void SetRequest(const char* method);
  std::string GetURL() const { return url; }
  /// The URL without secrets, for logs.
  std::string GetLoggableURL() const;
  std::string GetRequest() const { return request; }
  /// Method of the last transfer.
  std::string GetLastRequest() const { return lastrequest; }

  /// The value is formatted with `<<`. Values are escaped, keys are not.
  template <typename T>
  void AddQuery(const char* key, T value) {
    query[key] = Written(std::move(value));
  }
  /// A name or value with CR, LF or NUL makes the transfer fail before anything is sent.
  template <typename T>
  void AddHeader(const char* name, T value) {
    headers[name] = Written(std::move(value));
  }
  std::unordered_map<std::string, std::string> GetQuery() const { return query; }
  std::unordered_map<std::string, std::string> GetHeader() const { return headers; }

  /// Multipart form (libcurl's curl_httppost); ownership passes to the object.
  void SetPost(curl_httppost* form);
  /// Lets the next transfer send its body again from the first byte: after a redirect, or when a
  /// kept connection turns out to be closed. Not needed with a BodyCursor.
  void SetBodySeek(curl_seek_callback seek, void* body);
  void SetPostFileSize(long long size);
  /// Bytes per second in both directions; 0 for no limit.
  void SetSpeedLimit(long long bytesPerSecond);
  void SetLowSpeedTimeout(long seconds);
  /// Asks for a socket send buffer of 1 MiB.
  void SetSendBuffer();

  /// `type` is a ProxyKind. An empty host or kind 0 means no proxy; a port
  /// of 0 leaves libcurl's default or the port in `host`. Credentials are set when `user` is not
  /// empty.
  void SetProxy(int type, std::string host, int port, std::string user, std::string password);

  /// Checks certificate and host name, against the bundle next to the host program or, if there is
  /// none, against libcurl's default bundle.
  void SetSSLDefaults();

  /// Reports upload or download progress to the handle's callback during the next transfer. Copies
  /// the two pointers; does not keep the handle.
  void BindHandle(std::shared_ptr<_FS_HANDLE> handle);
  void BindHandleForDownload(std::shared_ptr<_FS_HANDLE> handle);
  /// Reports the next transfer to the record, which must live until the transfer ends.
  void BindUpload(UploadProgress& record);
  /// Ends the next transfer with CURLE_ABORTED_BY_CALLBACK within a second after the host has told
  /// the handle to stop, also while no byte moves. Called after one of the above.
  void StopWith(std::shared_ptr<_FS_HANDLE> handle);

  /// key=value pairs joined by "&"; "" for none.
  std::string BuildQueryString(bool escape) const;
  /// One line per header; null for none. The caller frees it with curl_slist_free_all.
  curl_slist* BuildHeader() const;

  /// Percent-encodes everything but unreserved characters (RFC 3986, section 2.3).
  std::string Escape(const char* text) const;
  /// Decodes percent escapes, up to the first NUL; "+" stays.
  std::string Unescape(const char* text) const;

  static std::string ErrorString(CURLcode code);
  /// Of the last transfer; "" before the first.
  std::string GetEffectiveURL() const;
  std::string GetScheme() const;
  CURL* GetCURL() const { return curl.get(); }

 protected:
  std::shared_ptr<CURL> curl;
  curl_httppost* post = nullptr;
  ProgressBinding progress;
  std::unordered_map<std::string, std::string> query;
  std::unordered_map<std::string, std::string> headers;
  std::string url;
  std::string request;
  std::string lastrequest;
  long connecttimeout = 10;
  std::array<char, CURL_ERROR_SIZE> errorbuffer{};
  bool preauthenticated = false;

 private:
  // The transfer-information callback calls this first; its result can end the transfer.
  struct StopWatch {
    curl_xferinfo_callback report = nullptr;
    void* to = nullptr;
    std::shared_ptr<_FS_HANDLE> handle;
  };
  struct BodySeek {
    curl_seek_callback seek = nullptr;
    void* body = nullptr;
  };

  template <typename T>
  static std::string Written(T value) {
    if constexpr (std::is_same_v<T, std::string>) return value;
    std::ostringstream text;
    text << value;
    return text.str();
  }

  template <typename Value>
  void Set(CURLoption option, Value value) {
    SetOption(curl.get(), option, value);
  }

  void FreePost();
  void Adopt(CURL* handle);
  void RenewHandle();
  void Bind(const std::shared_ptr<_FS_HANDLE>& handle, curl_xferinfo_callback report);
  void Report(curl_xferinfo_callback report, void* to);
  static int ReportUnlessStopped(void* stop_watch, curl_off_t download_total, curl_off_t downloaded,
                                 curl_off_t upload_total, curl_off_t uploaded);
  bool HeadersCanBeSent() const;
  std::string BuildURL() const;
  bool RewindBody() const;
  _CURLRTN Run(const char* natural_method, evbuffer* collected);

  // Connections, TLS sessions and addresses; outlives each easy handle.
  std::shared_ptr<CURLSH> kept;
  StopWatch stop_watch;
  BodySeek body_seek;
  bool body_is_read = false;  // by a read function
  bool handle_is_used_up = false;
};

}  // namespace onedrive4b
