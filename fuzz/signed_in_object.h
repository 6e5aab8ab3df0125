// A protocol object that is signed in, for targets that exercise operations.
#pragma once

#include <string>

#include "fuzz/scripted_transfers.h"
#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "tests/test_host.h"

inline constexpr const char* kServiceEndpoint = "https://drive.example/api";

class SignedInObject {
 public:
  /// A new one for each input, so that no input depends on the one before. The account's first
  /// answer is refused: sign-in then ends before the thread that renews tokens starts, which would
  /// cost more than all the rest, and the object has its tokens all the same.
  explicit SignedInObject(const char* endpoint = kServiceEndpoint) {
    protocol->SetOpt("option_fields", R"({"values":{"show_shared":{"value":false}}})");
    protocol->SetOpt("service_endpoint", endpoint);
    protocol->SetOpt("service_resource", "https://drive.example/");
    network.Queue("404");
    protocol->Connect(&host, R"({"args":{},"results":{}})");
    Require(network.seen.size() == 1 && network.seen[0].has_token, "the object is signed in");
    network.seen.clear();
  }

  IProtocol_V2* operator->() const { return protocol.get(); }

  LogRecorder log;
  FakeTime time;
  TestHost host;
  ScriptedTransfers network;
  ProtocolPtr protocol = MakeProtocol(&host);
};

/// What holds for every record that the module fills from an item.
inline void RequireWellFormed(const _FS_FILE_V2& file) {
  for (const std::string* text :
       {&file.id, &file.filename, &file.crtime, &file.lasttime, &file.accesstime}) {
    Require(IsCText(*text), "a record's texts end at their NUL");
  }
  Require(file.accesstime == file.lasttime, "the time of access is that of modification");
  Require(file.attr == 1 || (file.attr == 2 && file.size == 0), "a file, or a folder of size 0");
  // Reads to the NUL, which the sanitizers see when it is missing.
  if (file.eTag) Require(std::strlen(file.eTag.get()) < SIZE_MAX, "the tag ends");
  Require(file.extlist.empty() && file.extinfo.empty(), "the host's own fields stay the host's");
}
