// QuietSink: nobody reads the log.
#pragma once

#include "host/log.h"

namespace host {

class QuietSink final : public LogSink {
 public:
  bool Wants(LOGLEVEL /*level*/) override { return false; }
  void Write(LOGLEVEL /*level*/, std::string_view /*line*/) override {}
  void Warn(std::string_view /*text*/) override {}
};

}  // namespace host
