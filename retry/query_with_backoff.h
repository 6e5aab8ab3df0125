// The one routine through which every request to the service runs.
#pragma once

#include <initializer_list>
#include <memory>
#include <optional>
#include <unordered_map>

#include "onedrive4b/aerror.h"
#include "retry/func_ext.h"
#include "support/log.h"
#include "support/steady_time.h"
#include "transport/handle_pool.h"
#include "transport/request.h"

namespace onedrive4b {

/// Configures the request object from scratch, signs it, runs the transfer. Called once per
/// attempt.
template <typename Handle>
using Step = FuncExt<_CURLRTN(std::shared_ptr<Handle>)>;

/// SUCCESS when the response was consumed, RETRY to run the whole exchange again at once; any other
/// value ends the call with this value.
using StatusHandler = FuncExt<AERROR(_CURLRTN&)>;
using StatusHandlers = std::unordered_map<int, StatusHandler>;

/// Results for transfers that failed, by libcurl's code.
using TransferErrors = std::unordered_map<int, AERROR>;

/// Key of a handler for any status.
inline constexpr int kAnyStatus = -1;

/// One call of QueryWithBackoff: its attempts and the handling of their answers. Keeps references
/// to the constructor's arguments.
template <typename Backoff, typename Queue>
class BackoffQuery {
 public:
  using Handle = typename Queue::value_type;

  BackoffQuery(Queue& pool, const Step<Handle>& step, const StatusHandlers& range_handlers,
               const StatusHandlers& code_handlers, const TransferErrors& curl_errors)
      : pool_(pool),
        step_(step),
        range_handlers_(range_handlers),
        code_handlers_(code_handlers),
        curl_errors_(curl_errors) {}

  /// Once `stop` is true, waits end and the call fails.
  void StopWith(StopSignal stop) {
    if constexpr (requires(Backoff & policy) { policy.StopWith(stop); }) {
      backoff_->StopWith(std::move(stop));
    }
  }

  AERROR Run() {
    if (!step_.func) return INVALID_PARAMETER;
    for (;;) {
      if (const std::optional<AERROR> result = Attempt()) return *result;
    }
  }

 private:
  const char* name() const { return step_.name.empty() ? "QueryWithBackoff" : step_.name.c_str(); }

  // The result of the call, or nothing when the exchange is to be run again.
  std::optional<AERROR> Attempt() {
    const std::shared_ptr<Handle> handle = pool_.GetCURL();
    const AutoPutCURL<Handle> put_back(handle, &pool_);
    _CURLRTN exchange = step_(handle);
    exchange.impl = handle;
    if (exchange.curlcode != 0) return OnTransferError(exchange.curlcode);
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s >> %s %s >> %d : %s(%d)", name(),
             handle->GetScheme().c_str(), handle->GetLastRequest().c_str(), exchange.httpcode,
             handle->GetLoggableURL().c_str(), static_cast<int>(exchange.bodylen));
    if (backoff_->IsBackoffCode(exchange.httpcode)) return SlowDown();
    return Dispatch(exchange);
  }

  AERROR OnTransferError(int code) {
    __LOG__A(logger, LOGLEVEL_ERROR, "[PROTOCOL  ] %s >> %s", name(),
             Handle::ErrorString(static_cast<CURLcode>(code)).c_str());
    const auto mapped = curl_errors_.find(code);
    return mapped != curl_errors_.end() ? mapped->second : FAILED;
  }

  std::optional<AERROR> SlowDown() {
    if (!backoff_->IsAvaliable()) {
      __LOG__A(logger, LOGLEVEL_ERROR, "[PROTOCOL  ] %s >> No more backoff", name());
      return FAILED;
    }
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s >> %d time(s) backoff left", name(),
             backoff_->GetLeft());
    if (backoff_->Backoff() != RETRY) {
      __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s >> Backoff returns error", name());
      return FAILED;
    }
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s >> Backoff done. Retry", name());
    return std::nullopt;
  }

  // The handler of the exact status comes first, then the one of any status, then the one of the
  // class.
  std::optional<AERROR> Dispatch(_CURLRTN& exchange) {
    const int status = exchange.httpcode;
    const int status_class = status / 100 * 100;
    if (const auto exact = code_handlers_.find(status); exact != code_handlers_.end()) {
      const AERROR result = exact->second(exchange);
      __LOG__A(logger, LevelOf(result), "[PROTOCOL  ] %s >> ON HTTP %d : %s(0x%08X)", name(),
               status, GetAERRORA(result), static_cast<unsigned>(result));
      return UnlessRetry(result);
    }
    if (const auto any = code_handlers_.find(kAnyStatus); any != code_handlers_.end()) {
      const AERROR result = any->second(exchange);
      __LOG__A(logger, LevelOf(result), "[PROTOCOL  ] %s >> ON HTTP(for any code) %d : %s(0x%08X)",
               name(), status, GetAERRORA(result), static_cast<unsigned>(result));
      return UnlessRetry(result);
    }
    if (const auto range = range_handlers_.find(status_class); range != range_handlers_.end()) {
      const AERROR result = range->second(exchange);
      __LOG__A(logger, LevelOf(result), "[PROTOCOL  ] %s >> ON HTTP RANGE %d(%d) : %s(0x%08X)",
               name(), status_class, status, GetAERRORA(result), static_cast<unsigned>(result));
      return UnlessRetry(result);
    }
    return WithoutHandler(status);
  }

  AERROR WithoutHandler(int status) {
    if (status >= 400) {
      __LOG__A(logger, LOGLEVEL_ERROR, "[PROTOCOL  ] %s >> HTTP %d", name(), status);
      return FAILED;
    }
    __LOG__A(logger, LOGLEVEL_INFO, "[PROTOCOL  ] %s >> HTTP %d has no handler", name(), status);
    return SUCCESS;
  }

  static LOGLEVEL LevelOf(AERROR result) {
    return result == SUCCESS || result == RETRY ? LOGLEVEL_INFO : LOGLEVEL_ERROR;
  }

  static std::optional<AERROR> UnlessRetry(AERROR result) {
    if (result == RETRY) return std::nullopt;
    return result;
  }

  // The service throttles with 429 "Too Many Requests" (RFC 6585, section 4).
  static constexpr int kTooManyRequests = 429;
  static constexpr int kBackoffSteps = 5;

  Queue& pool_;
  const Step<Handle>& step_;
  const StatusHandlers& range_handlers_;
  const StatusHandlers& code_handlers_;
  const TransferErrors& curl_errors_;
  std::shared_ptr<Backoff> backoff_ =
      std::make_shared<Backoff>(std::initializer_list<int>{kTooManyRequests}, kBackoffSteps);
};

/// Runs `step` on request objects from `pool` until an answer is final.
///
/// The keys of `rangeHandlers` are statuses rounded down to their hundred, those of `codeHandlers`
/// are statuses or kAnyStatus. After a 429 the call waits as the policy says and repeats the
/// request; no handler sees the answer. A status without a handler is SUCCESS below 400, else
/// FAILED. A failed transfer is never repeated; the result is its entry in `curlErrors`, else
/// FAILED. A step without a callable is INVALID_PARAMETER.
///
/// Once `stop` is true, a wait ends early and the result is FAILED. An empty `stop` is never true.
///
/// Runs and waits on the calling thread. An exception from the step or a handler leaves the
/// function after the request object has been returned to the pool.
template <typename Backoff, typename Queue>
AERROR QueryWithBackoff(Queue& pool, Step<typename Queue::value_type> step,
                        StatusHandlers rangeHandlers, StatusHandlers codeHandlers,
                        TransferErrors curlErrors, StopSignal stop = {}) {
  BackoffQuery<Backoff, Queue> query(pool, step, rangeHandlers, codeHandlers, curlErrors);
  if (stop) query.StopWith(std::move(stop));
  return query.Run();
}

}  // namespace onedrive4b
