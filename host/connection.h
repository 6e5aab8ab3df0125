// Connection: one protocol object of the module, with its options set and signed in.
//
// Threads: the protocol object may be used from several threads; everything else belongs to the
// thread that made the connection. Lifetime: the objects in the context must outlive it. No
// operation may be running when it is destroyed; the destructor waits for a running renewal of
// tokens.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "host/authorizer.h"
#include "host/failure.h"
#include "host/log.h"
#include "host/module_library.h"
#include "host/proxy.h"
#include "host/settings.h"

namespace host {

struct SessionContext {
  const ModuleLibrary& module;
  AuthorizerContext authorizer;
};

struct SessionOptions {
  ServiceSettings service;
  ProxyRule proxy = ProxyRule::None();
  bool show_shared = true;
  std::int64_t speed_limit = 0;  ///< bytes per second of each transfer; 0: none
  /// Uploads replace only the version whose tag they name, and nothing when they name none.
  bool guard_uploads = false;
};

/// The failure of the operation `action`, with the result's name and what the module logged.
Failure DescribeFailure(const ModuleLibrary& module, AERROR result, const std::string& action,
                        const ErrorLines& errors);

class Connection {
 public:
  /// Throws Failure: for example kSignIn if the authority refuses, kUnreachable if it does not
  /// answer.
  Connection(const SessionContext& context, const SessionOptions& options);
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  IProtocol_V2& protocol() const noexcept { return *protocol_; }

  /// Of the token in use: the module may have renewed it by itself.
  Authorizer::TokenLife token_life() const { return authorizer_.token_life(); }

 private:
  struct Releaser {
    void operator()(IProtocol_V2* protocol) const { protocol->Release(); }
  };

  void SetOptions(const SessionOptions& options) const;
  void SignIn();

  const ModuleLibrary& module_;
  Authorizer authorizer_;
  std::unique_ptr<IProtocol_V2, Releaser> protocol_;
};

}  // namespace host
