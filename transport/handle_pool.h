// Pool of request objects, so that handles and their connections outlive single requests.
#pragma once

#include <cstdlib>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "onedrive4b/records.h"
#include "support/proxy_kind.h"

namespace onedrive4b {

/// Hands out request objects of type T and takes them back. Grows to the largest number in use at
/// the same time and never shrinks. Also holds the proxy settings, which GetCURL applies to each
/// request object: a change takes effect with the next GetCURL.
///
/// Any thread. Each operation holds `mutex`; hold it as well to write `proxy`.
template <typename T>
class CURLQueue {
 public:
  using value_type = T;

  CURLQueue() = default;
  CURLQueue(const CURLQueue&) = delete;
  CURLQueue& operator=(const CURLQueue&) = delete;
  virtual ~CURLQueue() = default;

  /// The request object returned last, whose connection is the warmest, or a new one.
  std::shared_ptr<T> GetCURL() {
    const std::lock_guard guard(mutex);
    std::shared_ptr<T> handle;
    if (free.empty()) {
      handle = AllocCURL();
    } else {
      handle = std::move(free.back());
      free.pop_back();
    }
    const int kind = ProtocolUtil::curlProxyType(proxy.type);
    if (kind != 0) {
      // NOLINTNEXTLINE(cert-err34-c): text that is no number means no port
      handle->SetProxy(kind, proxy.host, std::atoi(proxy.port.c_str()), proxy.user, proxy.password);
    }
    return handle;
  }

  /// Clears the request object and keeps it for the next request.
  void PutCURL(std::shared_ptr<T> handle) {
    const std::lock_guard guard(mutex);
    handle->Clear();
    free.push_back(std::move(handle));
  }

  virtual std::shared_ptr<T> AllocCURL() { return std::make_shared<T>(); }

  std::mutex mutex;
  std::vector<std::shared_ptr<T>> free;
  _PROXYINFO proxy;
};

/// Returns a request object to its pool at the end of a scope.
template <typename T>
class AutoPutCURL {
 public:
  AutoPutCURL(std::shared_ptr<T> handle, CURLQueue<T>* pool)
      : handle_(std::move(handle)), pool_(pool) {}
  AutoPutCURL(const AutoPutCURL&) = delete;
  AutoPutCURL& operator=(const AutoPutCURL&) = delete;
  /// Without memory the request object is destroyed instead; the pool makes another one later.
  virtual ~AutoPutCURL() {
    try {
      pool_->PutCURL(std::move(handle_));
    } catch (...) {
    }
  }

 private:
  std::shared_ptr<T> handle_;
  CURLQueue<T>* pool_;
};

}  // namespace onedrive4b
