// Session: the module's protocol object, bound to the host's services and signed in.
//
// Threads: the protocol object takes calls from several threads; the session itself is made and
// destroyed by one.
// Lifetime: everything handed to the constructor must outlive it. No operation may be running when
// it is destroyed.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "host/authorizer.h"
#include "host/failure.h"
#include "host/log.h"
#include "host/module_library.h"
#include "host/profile.h"
#include "host/settings.h"

namespace host {

struct SessionContext {
  const ModuleLibrary& module;
  Profile& profile;
  Authorizer& authorizer;
  Log& log;
};

struct SessionOptions {
  const ServiceSettings& service;
  const ProxySettings& proxy;
  bool show_shared = true;
  std::int64_t speed_limit = 0;  ///< bytes per second of each transfer; 0: none
};

class Session {
 public:
  /// Binds, sets the options and signs in. Throws a kSignIn Failure.
  Session(const SessionContext& context, const SessionOptions& options);

  /// Runs `operation` with the protocol object. Throws a Failure that says that `action` failed,
  /// with the result's name and what the module logged about it on this thread, unless the result
  /// is SUCCESS.
  void Call(const std::string& action, const std::function<AERROR(IProtocol_V2&)>& operation) const;

 private:
  class LoggerBinding {
   public:
    LoggerBinding(const ModuleLibrary& module, Log& log);
    ~LoggerBinding();
    LoggerBinding(const LoggerBinding&) = delete;
    LoggerBinding& operator=(const LoggerBinding&) = delete;

   private:
    const ModuleLibrary& module_;
  };
  struct Releaser {
    void operator()(IProtocol_V2* protocol) const { protocol->Release(); }
  };

  Failure Describe(AERROR result, const std::string& action, const ErrorLines& errors) const;
  void SetOptions(const SessionOptions& options) const;
  void Connect() const;

  SessionContext context_;
  LoggerBinding binding_;
  std::unique_ptr<IProtocol_V2, Releaser> protocol_;
};

}  // namespace host
