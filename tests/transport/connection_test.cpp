// Hunts requests that fail because a kept connection was closed meanwhile, connections that are
// thrown away although they could be used again, and bodies that are sent again from the wrong
// byte.
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <netdb.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tests/web_server.h"
#include "transport/onedrivebiz_curl.h"

namespace {

thread_local bool break_next_send = false;

}  // namespace

// libcurl sends through this function, which the program exports.
extern "C" __attribute__((visibility("default"))) ssize_t send(int socket, const void* data,
                                                               std::size_t size, int flags) {
  if (std::exchange(break_next_send, false)) {
    errno = EPIPE;
    return -1;
  }
  return ::syscall(SYS_sendto, socket, data, size, flags, nullptr, 0);
}

// libcurl asks for names through this one, on a thread of its own.
extern "C" __attribute__((visibility("default"))) int getaddrinfo(const char* node,
                                                                  const char* service,
                                                                  const addrinfo* hints,
                                                                  addrinfo** result) {
  if (node != nullptr && std::string_view(node) == "slow.example") {
    std::this_thread::sleep_for(std::chrono::seconds(4));
    return EAI_AGAIN;
  }
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  return real(node, service, hints, result);
}

namespace onedrive4b {
namespace {

using emulator::Cut;
using emulator::Place;
using emulator::Response;

const std::string kBody(300'000, 'b');
bool armed = false;  // the next body breaks off

std::size_t ReadBody(char* buffer, std::size_t size, std::size_t count, void* cursor) {
  return read_callback_buf_func(buffer, size, count, cursor);
}

_CURLRTN Get(CURLImpl& request) { return request.PerformGet(nullptr, nullptr); }
_CURLRTN Post(CURLImpl& request) { return request.PerformPost(kBody); }
_CURLRTN Stream(CURLImpl& request) {
  BodyCursor cursor{kBody.data(), 0, static_cast<std::int64_t>(kBody.size())};
  request.SetRequest("PUT");
  request.SetBodySeek(&read_callback_buf_seek_func, &cursor);
  return request.PerformPost(reinterpret_cast<void*>(&ReadBody), &cursor, cursor.length);
}
// From a source that cannot be read twice.
_CURLRTN StreamOnce(CURLImpl& request) {
  BodyCursor cursor{kBody.data(), 0, static_cast<std::int64_t>(kBody.size())};
  return request.PerformPost(reinterpret_cast<void*>(&ReadBody), &cursor, cursor.length);
}

/// A server that says what becomes of the connection of each request, counted from 0.
class Connections {
 public:
  explicit Connections(bool tls, std::function<void(int number, Response&)> spoil = {})
      : identity_(emulator::MakeServerIdentity("localhost")),
        bundle_(identity_.authority_pem),
        spoil_(std::move(spoil)),
        server_([this](const Received& request) { return Answer(request); },
                {.tls = tls ? std::optional(identity_) : std::nullopt}) {}

  std::string Url() const { return server_.Url("/"); }
  const std::string& authority() const { return identity_.authority_pem; }

  /// One request from the pool; whether it needed a new connection.
  bool Run(_CURLRTN (*perform)(CURLImpl&), CURLcode expected = CURLE_OK) {
    const std::shared_ptr<OneDriveBizCURL> request = pool_.GetCURL();
    const AutoPutCURL<OneDriveBizCURL> put_back(request, &pool_);
    request->SetURL(Url().c_str());
    const _CURLRTN result = perform(*request);
    EXPECT_EQ(result.curlcode, expected) << CURLImpl::ErrorString(CURLcode(result.curlcode));
    if (expected == CURLE_OK) {
      const std::string body = perform == &Get ? "" : kBody;
      EXPECT_TRUE(std::string(result.body.get(), result.bodylen) == "got " + body);
    }
    return GetInfo(request->GetCURL(), CURLINFO_NUM_CONNECTS, 0L) > 0;
  }

 private:
  Response Answer(const Received& request) {
    Response response;
    response.text = "got " + request.body;
    if (spoil_) spoil_(number_++, response);
    return response;
  }

  emulator::ServerIdentity identity_;
  TrustedAuthority bundle_;
  std::function<void(int, Response&)> spoil_;
  std::atomic<int> number_ = 0;
  CURLQueue<OneDriveBizCURL> pool_;
  WebServer server_;
};

// libcurl 7.88 allows five closed connections in the life of a handle, and never sends a body again
// once it has begun to.
TEST(KeptConnections, AreReplacedWhenTheServerHasClosedThem) {
  const auto closed = [](int, Response& response) { response.delivery.close_after = true; };
  // As behind a router that has forgotten the connection: the next request on it meets a reset.
  const auto forgotten = [](int number, Response& response) {
    if (number % 2 == 1) response.delivery.cut = Cut::kReset;
  };
  const auto forgotten_in_body = [](int number, Response& response) {
    if (number % 2 == 0) return;
    response.delivery.cut = Cut::kReset;
    response.delivery.place = Place::kInRequestBody;
    response.delivery.after_bytes = 1000;
  };
  struct Case {
    const char* what;
    std::function<void(int, Response&)> spoil;
    _CURLRTN (*perform)(CURLImpl&);
    int calls;
  };
  for (const bool tls : {true, false}) {
    for (const Case& c : {Case{"closed, GET", closed, &Get, 100},
                          {"closed, POST", closed, &Post, 20},
                          {"closed, PUT", closed, &Stream, 20},
                          {"forgotten, GET", forgotten, &Get, 100},
                          {"forgotten, POST", forgotten, &Post, 20},
                          {"forgotten, PUT", forgotten, &Stream, 20},
                          {"forgotten in the body, POST", forgotten_in_body, &Post, 20},
                          {"forgotten in the body, PUT", forgotten_in_body, &Stream, 20}}) {
      SCOPED_TRACE(std::string(c.what) + (tls ? ", TLS" : ""));
      Connections connections(tls, c.spoil);
      for (int call = 0; call < c.calls && !::testing::Test::HasFailure(); ++call) {
        connections.Run(c.perform);
      }
    }
  }
}

// libcurl itself sends nothing again once a send of the body has failed.
TEST(KeptConnections, ABodyThatBreaksOffIsSentAgain) {
  const auto breaking = [](CURLImpl& request) {
    BodyCursor cursor{kBody.data(), 0, static_cast<std::int64_t>(kBody.size())};
    const auto read = +[](char* buffer, std::size_t size, std::size_t count, void* from) {
      break_next_send = static_cast<BodyCursor*>(from)->offset == 0 && std::exchange(armed, false);
      return read_callback_buf_func(buffer, size, count, from);
    };
    request.SetBodySeek(&read_callback_buf_seek_func, &cursor);
    return request.PerformPost(reinterpret_cast<void*>(read), &cursor, cursor.length);
  };
  for (const bool tls : {true, false}) {
    Connections connections(tls);
    connections.Run(&Get);
    armed = true;
    EXPECT_TRUE(connections.Run(breaking)) << "on a new connection";
    armed = true;
    Connections new_one(tls);
    new_one.Run(breaking, CURLE_SEND_ERROR);
  }
}

// The handle's count of closed connections must not end a request of which a part was answered.
TEST(KeptConnections, OfBothServersOfARedirectMayHaveBeenClosed) {
  Connections target(true, [](int, Response& response) { response.delivery.close_after = true; });
  Connections first(true, [&](int, Response& response) {
    response.status = 302;
    response.SetHeader("Location", target.Url());
    response.delivery.close_after = true;
  });
  TrustedAuthority bundle(target.authority() + first.authority());
  for (int call = 0; call < 20 && !HasFailure(); ++call) first.Run(&Get);
}

TEST(KeptConnections, ARequestIsNotRepeatedWhenThatCouldBeWrong) {
  // A new connection that breaks, and a body that cannot be read again.
  Connections new_one(false, [](int, Response& response) { response.delivery.cut = Cut::kReset; });
  new_one.Run(&Get, CURLE_RECV_ERROR);
  Connections once(false, [](int number, Response& response) {
    if (number == 1) response.delivery.cut = Cut::kReset;
  });
  once.Run(&Get);
  once.Run(&StreamOnce, CURLE_SEND_FAIL_REWIND);
}

TEST(KeptConnections, SurviveTransfersThatEndEarly) {
  Connections other(false);
  EXPECT_TRUE(other.Run(&Get));
  EXPECT_FALSE(other.Run(&Get));

  const WebServer large([](const Received&) {
    Response response;
    response.text.assign(5'000'000, 'x');
    return response;
  });
  const Connections service(true);
  CURLQueue<OneDriveBizCURL> pool;
  const auto run = [&](const std::string& url, bool stop) {
    const std::shared_ptr<OneDriveBizCURL> request = pool.GetCURL();
    const AutoPutCURL<OneDriveBizCURL> put_back(request, &pool);
    const auto refuse = +[](char*, std::size_t, std::size_t, void*) { return std::size_t{0}; };
    request->SetURL(url.c_str());
    const _CURLRTN result = request->PerformGet(stop ? reinterpret_cast<void*>(refuse) : nullptr,
                                                stop ? request.get() : nullptr);
    EXPECT_EQ(result.curlcode, stop ? CURLE_WRITE_ERROR : CURLE_OK);
    return GetInfo(request->GetCURL(), CURLINFO_NUM_CONNECTS, 0L) > 0;
  };
  EXPECT_TRUE(run(service.Url(), false));
  for (int call = 0; call < 3; ++call) {
    run(large.Url("/"), true);
    EXPECT_FALSE(run(service.Url(), false)) << "the service's connection is still there";
  }
}

// Older versions of libcurl follow a pointer into the broken headers when the next ones are folded.
TEST(KeptConnections, AnAnswerBrokenInItsHeadersCostsTheHandleOnly) {
  Connections connections(false, [](int number, Response& response) {
    if (number == 1) {
      response.headers = {{"X-Last", std::string(40, 'x')}, {"X-Cut", std::string(40, 'c')}};
      response.delivery.cut = Cut::kClose;
      response.delivery.place = Place::kInHeaders;
      response.delivery.after_bytes = 80;  // in the second header line
    } else if (number == 2) {
      response.headers = {{" folded", std::string(40, 'y')}};
    }
  });
  connections.Run(&Get);
  connections.Run(&Get, CURLE_PARTIAL_FILE);
  connections.Run(&Get);
}

TEST(Stop, EndsALookupOfANameWithinASecond) {
  const auto handle = std::make_shared<_FS_HANDLE>();
  CURLImpl request;
  request.SetURL("http://slow.example/");
  request.StopWith(handle);
  const std::jthread host([&handle] {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::atomic_ref(handle->state).store(3);
  });
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(Get(request).curlcode, CURLE_ABORTED_BY_CALLBACK);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1700));
}

}  // namespace
}  // namespace onedrive4b
