// A service whose answers the test scripts, for what an honest service never says.
#pragma once

#include <deque>
#include <map>
#include <string>
#include <utility>

#include "tests/web_server.h"

/// Knows the discovery document and the account; everything else, and other answers for these, is
/// queued by the test: an answer is used once, the last one of a target stays.
class ScriptedService {
 public:
  ScriptedService() {
    Answer("/discovery", R"({"value":[{"capability":"MyFiles","serviceApiVersion":"v2.0",)"
                         R"("serviceResourceId":"https://res/","serviceEndpointUri":")" +
                             Endpoint() + R"("}]})");
    Answer("/api/drive", Account());
  }

  static std::string Account() {
    return R"({"owner":{"user":{"displayName":"Robin"}},"quota":{"total":1000,"remaining":250}})";
  }
  std::string Endpoint() const { return server_.Url("/api"); }
  std::string Url(const std::string& target) const { return server_.Url(target); }

  void Answer(const std::string& target, emulator::Response response) {
    const std::lock_guard guard(mutex_);
    answers_[target].push_back(std::move(response));
  }
  void Answer(const std::string& target, std::string body, int status = 200) {
    emulator::Response response;
    response.status = status;
    response.text = std::move(body);
    Answer(target, std::move(response));
  }
  /// Forgets what was queued for the target, then queues this.
  void AnswerOnly(const std::string& target, std::string body, int status = 200) {
    {
      const std::lock_guard guard(mutex_);
      answers_[target].clear();
    }
    Answer(target, std::move(body), status);
  }

  std::vector<Received> requests() const { return server_.requests(); }
  /// "METHOD target" of every request.
  std::vector<std::string> Targets() const {
    std::vector<std::string> targets;
    for (const Received& request : requests())
      targets.push_back(request.method + " " + request.target);
    return targets;
  }

 private:
  emulator::Response Serve(const Received& request) {
    const std::lock_guard guard(mutex_);
    std::deque<emulator::Response>& queue = answers_[request.target];
    if (queue.empty()) return emulator::JsonResponse(404, R"({"error":{"code":"itemNotFound"}})");
    emulator::Response response = queue.front();
    if (queue.size() > 1) queue.pop_front();
    return response;
  }

  std::mutex mutex_;
  std::map<std::string, std::deque<emulator::Response>> answers_;
  WebServer server_{[this](const Received& request) { return Serve(request); }};
};
