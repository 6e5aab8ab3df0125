// What tests of a protocol object share: a scripted service, a host, and the object.
#pragma once

#include <string>

#include <gtest/gtest.h>

#include "tests/fake_time.h"
#include "tests/log_recorder.h"
#include "tests/protocol/scripted_service.h"
#include "tests/test_host.h"

inline constexpr const char* kCredential = R"({"args":{"client":"c"},"results":{}})";

class ProtocolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    protocol = MakeProtocol(&host);
    protocol->SetOpt("Discovery_URL", service.Url("/discovery").c_str());
  }
  void TearDown() override {
    protocol.reset();
    EXPECT_EQ(host.replies_out, 0) << "every reply is released once";
  }

  AERROR Connect(const char* credential = kCredential) {
    return protocol->Connect(&host, credential);
  }
  void HideShared() {
    protocol->SetOpt("option_fields", R"({"values":{"show_shared":{"value":false}}})");
  }

  ScriptedService service;
  LogRecorder log;
  FakeTime time;
  TestHost host;
  ProtocolPtr protocol;
};

/// Signed in, with nothing recorded of it.
class SignedInTest : public ProtocolTest {
 protected:
  void SetUp() override {
    ProtocolTest::SetUp();
    ASSERT_EQ(Connect(), SUCCESS);
    host.ClearCalls();
    log.Clear();
    first_ = service.requests().size();
  }

  /// Requests since sign-in.
  std::vector<Received> Requests() const {
    const std::vector<Received> all = service.requests();
    return {all.begin() + static_cast<std::ptrdiff_t>(first_), all.end()};
  }

 private:
  std::size_t first_ = 0;
};
