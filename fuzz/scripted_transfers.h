// The network in memory: the module's pool hands out request objects whose transfers are answered
// from a script, without libcurl sending anything.
#pragma once

#include <array>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "fuzz/input.h"
#include "transport/onedrivebiz_curl.h"

/// One script at a time.
class ScriptedTransfers {
 public:
  struct Seen {
    std::string url;
    bool has_token;
    int status;
  };

  ScriptedTransfers() {
    current_ = this;
    while (cq.free.size() < kMostAtOnce) cq.free.push_back(std::make_shared<Request>());
  }
  ScriptedTransfers(const ScriptedTransfers&) = delete;
  ScriptedTransfers& operator=(const ScriptedTransfers&) = delete;
  ~ScriptedTransfers() {
    current_ = nullptr;
    Require(cq.free.size() == kMostAtOnce, "every request object goes back to the pool");
  }

  /// Queues an answer: "STATUS BODY", or "!CODE" for a transfer that fails with libcurl's code.
  void Queue(const std::string& line) { answers_.push_back(line); }
  /// Queues all lines that are left, in place of what was queued.
  void QueueRest(FuzzInput input) {
    answers_.clear();
    while (!input.AtEnd()) Queue(input.Line());
  }

  /// In order. What goes beyond the script is answered 404.
  std::vector<Seen> seen;

 private:
  // A renewal of tokens runs inside a request, and discovery inside a renewal.
  static constexpr std::size_t kMostAtOnce = 4;

  class Request final : public onedrive4b::OneDriveBizCURL {
   public:
    onedrive4b::_CURLRTN PerformGet(void* write_function, void*) override {
      Require(write_function == nullptr, "the response is collected");
      return current_->Answer(*this);
    }
    onedrive4b::_CURLRTN PerformPost(std::string) override { return current_->Answer(*this); }
    onedrive4b::_CURLRTN PerformPost(void* read_function, void* read_data, long long) override {
      if (read_function == nullptr || ReadBody(read_function, read_data)) {
        return current_->Answer(*this);
      }
      onedrive4b::_CURLRTN aborted;
      aborted.curlcode = CURLE_ABORTED_BY_CALLBACK;
      return aborted;
    }
  };

  using UploadCallback = std::size_t(void*, std::size_t, std::size_t, void*);

  // The beginning of a body is enough to see that it can be read. False when it is refused.
  static bool ReadBody(void* function, void* data) {
    constexpr int kPieces = 3;
    std::array<char, 512> piece;
    for (int count = 0; count < kPieces; ++count) {
      const std::size_t length =
          reinterpret_cast<UploadCallback*>(function)(piece.data(), 1, piece.size(), data);
      if (length == 0) return true;
      if (length == CURL_READFUNC_ABORT) return false;
      Require(length <= piece.size(), "a body piece fits its buffer");
    }
    return true;
  }

  onedrive4b::_CURLRTN Answer(const onedrive4b::CURLImpl& request) {
    onedrive4b::_CURLRTN result;
    if (answers_.empty()) {
      result.httpcode = 404;
    } else {
      Fill(result, answers_.front());
      answers_.pop_front();
    }
    seen.push_back(
        {request.GetURL(), request.GetHeader().contains("Authorization"), result.httpcode});
    return result;
  }

  static void Fill(onedrive4b::_CURLRTN& result, const std::string& line) {
    if (line.starts_with('!')) {
      const auto code = static_cast<unsigned>(NumberIn(line.substr(1))) % CURL_LAST;
      result.curlcode = code == CURLE_OK ? CURLE_RECV_ERROR : static_cast<int>(code);
      return;
    }
    result.httpcode = static_cast<int>(NumberIn(line.substr(0, 3)));
    const std::size_t space = line.find(' ');
    const std::size_t start = space == std::string::npos ? line.size() : space + 1;
    result.bodylen = static_cast<std::uint32_t>(line.size() - start);
    if (result.bodylen == 0) return;
    result.body = std::make_shared<char[]>(result.bodylen);  // no NUL behind it
    line.copy(result.body.get(), result.bodylen, start);
  }

  static inline ScriptedTransfers* current_ = nullptr;
  std::deque<std::string> answers_;
};
