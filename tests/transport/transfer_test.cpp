// Hunts requests that leave in the wrong form, answers that are cut at the wrong place, and what
// one request leaves behind for the next.
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "emulator/text/gzip.h"
#include "tests/web_server.h"
#include "transport/onedrivebiz_curl.h"
#include "transport/url.h"

namespace onedrive4b {
namespace {

using emulator::Response;

std::string BodyOf(const _CURLRTN& result) { return {result.body.get(), result.bodylen}; }

Response Text(std::string text, int status = 200) {
  Response response;
  response.status = status;
  response.text = std::move(text);
  return response;
}

Response RedirectTo(const std::string& location, int status) {
  Response response = Text("moved, and this page does not count", status);
  response.SetHeader("Location", location);
  return response;
}

std::size_t AppendTo(char* data, std::size_t size, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(data, size * count);
  return size * count;
}

void* Function(std::size_t (*function)(char*, std::size_t, std::size_t, void*)) {
  return reinterpret_cast<void*>(function);
}

TEST(Request, RunsInFiveWays) {
  const WebServer server([](const Received&) { return Text("answer"); });
  enum Way { kGet, kStream, kText, kReader, kForm };
  struct Case {
    Way way;
    const char *method, *target, *body, *length;
  };
  for (const Case& c : {
           Case{kGet, "GET", "/p?x=1&select=name%2Csize", "", "(none)"},
           {kStream, "GET", "/p?x=1&select=name%2Csize", "", "(none)"},
           {kText, "POST", "/p?x=1&select=name%2Csize", "{\"a\":1}", "7"},
           {kReader, "POST", "/p?x=1&select=name%2Csize", "12345", "5"},
           {kForm, "POST", "/p?x=1", "select=name%2Csize", "18"},
       }) {
    SCOPED_TRACE(c.way);
    CURLImpl request;
    request.SetURL(server.Url("/p?x=1").c_str());
    request.AddQuery("select", std::string("name,size"));
    BodyCursor cursor{"12345", 0, 5};
    std::string streamed;
    const _CURLRTN result = c.way == kGet      ? request.PerformGet(nullptr, nullptr)
                            : c.way == kStream ? request.PerformGet(Function(AppendTo), &streamed)
                            : c.way == kText   ? request.PerformPost(c.body)
                            : c.way == kReader
                                ? request.PerformPost(Function(read_callback_buf_func), &cursor, 5)
                                : request.PerformPost(nullptr, nullptr, -1);
    ASSERT_EQ(result.curlcode, CURLE_OK);
    EXPECT_EQ(result.httpcode, 200);
    EXPECT_EQ(c.way == kStream ? streamed : BodyOf(result), "answer");
    EXPECT_EQ(result.header != nullptr, c.way != kStream);
    EXPECT_EQ(result.bodylen, c.way == kStream ? 0U : 6U);
    EXPECT_EQ(request.GetLastRequest(), c.method);
    EXPECT_EQ(request.GetScheme(), "HTTP");
    const Received got = server.requests().back();
    EXPECT_EQ(got.method, c.method);
    EXPECT_EQ(got.target, c.target);
    EXPECT_EQ(got.body, c.body);
    EXPECT_EQ(got.Header("Content-Length"), c.length);
    EXPECT_EQ(got.Header("User-Agent"), "Tamborel(gzip)");
    EXPECT_NE(got.Header("Accept-Encoding").find("gzip"), std::string::npos);
  }
}

TEST(Request, SendsMethodWordsHeadersAndEmptyBodies) {
  const WebServer server([](const Received&) { return Text("", 204); });
  CURLImpl request;
  request.SetURL(server.Url("/item").c_str());
  request.SetRequest("DELETE");
  request.AddHeader("if-match", std::string("\"{A},1\""));
  request.AddHeader("If-None", "first");
  request.AddHeader("If-None", "second");
  const _CURLRTN result = request.PerformPost(nullptr, nullptr, -1);
  EXPECT_EQ(result.httpcode, 204);
  EXPECT_EQ(result.bodylen, 0U);
  EXPECT_EQ(result.body, nullptr);
  EXPECT_TRUE(std::string_view(result.header.get()).starts_with("HTTP/1.1 204"));
  EXPECT_EQ(std::string_view(result.header.get()).size(), result.headerlen);
  const Received got = server.requests().back();
  EXPECT_EQ(got.method, "DELETE");
  EXPECT_EQ(got.Header("if-match"), "\"{A},1\"");
  EXPECT_EQ(got.Header("If-None"), "second");
  EXPECT_EQ(got.Header("Content-Length"), "0");
  EXPECT_EQ(got.Header("Content-Type"), "application/x-www-form-urlencoded");
  EXPECT_EQ(request.GetLastRequest(), "DELETE");
}

TEST(Request, ClearForgetsTheRequest) {
  const WebServer server([](const Received&) { return Text("answer"); });
  CURLImpl request;
  request.SetURL(server.Url("/first").c_str());
  request.SetRequest("PATCH");
  request.AddHeader("if-match", "e");
  request.AddQuery("q", std::string("1"));
  request.SetSpeedLimit(1);
  request.PerformPost("body");
  request.Clear();
  EXPECT_TRUE(request.GetURL().empty() && request.GetRequest().empty());
  EXPECT_TRUE(request.GetLastRequest().empty() && request.GetQuery().empty());
  EXPECT_TRUE(request.GetHeader().empty());

  request.SetURL(server.Url("/second").c_str());
  EXPECT_EQ(BodyOf(request.PerformGet(nullptr, nullptr)), "answer");
  const Received got = server.requests().back();
  EXPECT_EQ(got.method, "GET");
  EXPECT_EQ(got.target, "/second");
  EXPECT_EQ(got.body, "");
  EXPECT_EQ(got.Header("if-match"), "(none)");
  EXPECT_EQ(got.Header("User-Agent"), "Tamborel(gzip)");
}

TEST(Request, BuildsQueriesHeadersAndEscapes) {
  CURLImpl request;
  EXPECT_EQ(request.BuildQueryString(true), "");
  EXPECT_EQ(request.BuildHeader(), nullptr);
  request.AddQuery("select", std::string("name,size"));
  EXPECT_EQ(request.BuildQueryString(true), "select=name%2Csize");
  EXPECT_EQ(request.BuildQueryString(false), "select=name,size");
  request.AddHeader("Authorization", "1");
  request.AddHeader("authorization", "2");
  EXPECT_EQ(request.GetHeader().size(), 2U);
  EXPECT_EQ(request.Escape("a b#\xC3\xA9.-_~"), "a%20b%23%C3%A9.-_~");
  EXPECT_EQ(request.Escape(""), "");
  EXPECT_EQ(request.Unescape("a%20b+c%00d"), "a b+c");
  EXPECT_EQ(request.GetEffectiveURL(), "");
  EXPECT_EQ(request.GetScheme(), "");
}

TEST(Response, KeepsEveryHeaderBlockAndOnlyTheBody) {
  // Interim answers, a redirect, a compressed chunked body and a trailer, all in one exchange.
  WebServer* self = nullptr;
  const std::string text(100000, 'b');
  WebServer server([&](const Received& request) {
    if (request.target == "/start") {
      Response redirect = RedirectTo(self->Url("/end"), 302);
      redirect.delivery.chunked = true;
      redirect.delivery.trailers = {{"X-Trailer", "not a header"}};
      return redirect;
    }
    Response response = Text(emulator::Gzip(text));
    response.SetHeader("Content-Encoding", "gzip");
    response.delivery.interim = {{103, {{"Link", "</style>"}}}};
    response.delivery.chunked = true;
    response.delivery.trailers = {{"X-Trailer", "not the body"}};
    return response;
  });
  self = &server;
  CURLImpl request;
  request.SetURL(server.Url("/start").c_str());
  const _CURLRTN result = request.PerformGet(nullptr, nullptr);
  ASSERT_EQ(result.curlcode, CURLE_OK);
  EXPECT_EQ(result.httpcode, 200);
  ASSERT_EQ(result.bodylen, text.size()) << BodyOf(result).substr(text.size());
  EXPECT_EQ(BodyOf(result), text);
  const std::string headers(result.header.get(), result.headerlen);
  for (const char* status : {"HTTP/1.1 302", "HTTP/1.1 103", "HTTP/1.1 200"}) {
    EXPECT_NE(headers.find(status), std::string::npos) << status;
  }
  EXPECT_TRUE(headers.ends_with("\r\n\r\n"));
  EXPECT_EQ(headers.find("X-Trailer: not"), std::string::npos);
  EXPECT_EQ(request.GetEffectiveURL(), server.Url("/end"));
  // A stream after a collected answer finds nothing left of it.
  std::string streamed;
  request.Clear();
  request.SetURL(server.Url("/end").c_str());
  EXPECT_EQ(request.PerformGet(Function(AppendTo), &streamed).httpcode, 200);
  EXPECT_EQ(streamed, text);
}

TEST(Request, BodiesFollowRedirects) {
  WebServer* self = nullptr;
  int status = 0;
  WebServer server([&](const Received& request) {
    return request.target == "/a" ? RedirectTo(self->Url("/b"), status)
                                  : Text(request.method + request.body);
  });
  self = &server;
  const std::string body(300, 'j');
  struct Case {
    int status;
    const char* method;
    std::string arrives;
  };
  for (const Case& c : {Case{307, "", "POST" + body},
                        {308, "", "POST" + body},
                        {303, "", "GET"},
                        {301, "PUT", "PUT" + body},
                        {302, "PUT", "PUT" + body},
                        {303, "PUT", "PUT" + body},
                        {307, "PUT", "PUT" + body}}) {
    SCOPED_TRACE(std::to_string(c.status) + c.method);
    status = c.status;
    CURLImpl request;
    request.SetURL(server.Url("/a").c_str());
    request.SetRequest(c.method);
    EXPECT_EQ(BodyOf(request.PerformPost(body)), c.arrives);
  }
}

TEST(Request, AFormMaySetTheFormThatIsThere) {
  const WebServer server([](const Received& request) { return Text(request.body); });
  curl_httppost* form = nullptr;
  curl_httppost* last = nullptr;
  CURL_IGNORE_DEPRECATION(
      curl_formadd(&form, &last, CURLFORM_COPYNAME, "n", CURLFORM_COPYCONTENTS, "v", CURLFORM_END);)
  CURLImpl request;
  request.SetURL(server.Url("/").c_str());
  request.SetPost(form);
  request.SetPost(form);
  EXPECT_NE(BodyOf(request.PerformPost(nullptr, nullptr, -1)).find("\r\n\r\nv\r\n"),
            std::string::npos);
}

TEST(Request, ForgedHeadersAreNeverSent) {
  const WebServer server([](const Received&) { return Text("answer"); });
  const std::string nul("v\0w", 3);
  for (const auto& [name, value] : {std::pair<std::string, std::string>{"X", "v\r\nForged: 1"},
                                    {"X", "v\n"},
                                    {"X", nul},
                                    {"X\r\nForged", "1"}}) {
    CURLImpl request;
    request.SetURL(server.Url("/").c_str());
    request.AddHeader(name.c_str(), value);
    EXPECT_NE(request.PerformGet(nullptr, nullptr).curlcode, CURLE_OK);
  }
  EXPECT_TRUE(server.requests().empty());
}

TEST(Request, NothingButWebServersIsAsked) {
  const WebServer server([](const Received&) { return RedirectTo("file:///etc/hostname", 302); });
  for (const std::string& url : {server.Url("/"), std::string("file:///etc/hostname")}) {
    CURLImpl request;
    request.SetURL(url.c_str());
    EXPECT_EQ(request.PerformGet(nullptr, nullptr).curlcode, CURLE_UNSUPPORTED_PROTOCOL);
  }
}

TEST(Progress, ReportsTheRightDirection) {
  struct Report {
    long long total = 0, done = 0;
  };
  const WebServer server([](const Received&) { return Text(std::string(70000, 'd')); });
  for (const bool upload : {true, false}) {
    Report report;
    const auto handle = std::make_shared<_FS_HANDLE>();
    handle->progressctx = &report;
    handle->progress = [](long long total, long long done, void* context, double) {
      *static_cast<Report*>(context) = {total, done};
      throw 1;  // must neither leave libcurl nor end the transfer
    };
    CURLImpl request;
    request.SetURL(server.Url("/").c_str());
    upload ? request.BindHandle(handle) : request.BindHandleForDownload(handle);
    EXPECT_EQ(request.PerformPost(std::string(50000, 'u')).httpcode, 200);
    EXPECT_EQ(report.total, upload ? 50000 : 70000);
    EXPECT_EQ(report.done, report.total);
  }
}

TEST(Progress, CountsAnUploadOverItsRequests) {
  std::vector<std::pair<long long, long long>> reports;
  UploadProgress progress;
  progress.context = &reports;
  progress.callback = [](long long total, long long done, void* context, double) {
    static_cast<std::vector<std::pair<long long, long long>>*>(context)->emplace_back(total, done);
  };
  progress.total = 100;
  OneDriveBizCURL request;
  for (const long uploaded : {4L, 10L}) {
    request.BindUpload(progress);
    _CURL_PROGRESS_ONEDRIVE(&progress, 0, 0, 0, 3);
    _CURL_PROGRESS_ONEDRIVE(&progress, 0, 0, 0, uploaded);
  }
  EXPECT_EQ(reports, (std::vector<std::pair<long long, long long>>{
                         {100, 3}, {100, 4}, {100, 7}, {100, 14}}));
}

TEST(BodyCursor, ReadsAndSeeks) {
  BodyCursor cursor{"abcdef", 0, 6};
  char buffer[4];
  EXPECT_EQ(read_callback_buf_func(buffer, 2, 2, &cursor), 4U);
  EXPECT_EQ(read_callback_buf_func(buffer, 1, 4, &cursor), 2U);
  EXPECT_EQ(read_callback_buf_func(buffer, 1, 4, &cursor), 0U);
  struct Case {
    int origin;
    long distance, offset;
  };
  for (const Case& c : {Case{SEEK_SET, 2, 2},
                        {SEEK_CUR, 3, 5},
                        {SEEK_END, -1, 5},
                        {99, 1, 5},
                        {SEEK_SET, 50, 50}}) {
    EXPECT_EQ(read_callback_buf_seek_func(&cursor, c.distance, c.origin), CURL_SEEKFUNC_OK);
    EXPECT_EQ(cursor.offset, c.offset);
  }
  EXPECT_EQ(read_callback_buf_func(buffer, 1, 4, &cursor), 0U) << "past the end there is nothing";
  EXPECT_EQ(read_callback_buf_seek_func(nullptr, 0, SEEK_SET), CURL_SEEKFUNC_FAIL);
}

TEST(Tls, NoBundleIsNoReasonNotToVerify) {
  const WebServer server([](const Received&) { return Text("secure"); },
                         {.tls = emulator::MakeServerIdentity("localhost")});
  OneDriveBizCURL request;
  request.SetURL(server.Url("/").c_str());
  EXPECT_EQ(request.PerformGet(nullptr, nullptr).curlcode, CURLE_PEER_FAILED_VERIFICATION);
}

TEST(Url, ComparesOrigins) {
  struct Case {
    const char *a, *b;
    bool same;
  };
  for (const Case& c : {
           Case{"https://host/a", "https://HOST:443/b?c", true},
           {"http://host", "http://host:80/", true},
           {"https://host", "http://host", false},
           {"https://host:444", "https://host", false},
           {"https://host.evil", "https://host", false},
           {"https://host:4430/", "https://host:443", false},
           {"https://host@evil/", "https://host@evil", true},
           {"https://user@host/", "https://host/", true},
           {"https://host@evil/", "https://host/", false},
           {"", "", false},
           {"https://", "https://", false},
           {"file:///a", "file:///a", false},
       }) {
    EXPECT_EQ(SameOrigin(c.a, c.b), c.same) << c.a << " " << c.b;
  }
}

}  // namespace
}  // namespace onedrive4b
