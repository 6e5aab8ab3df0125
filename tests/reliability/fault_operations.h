// The operations that talk to the service, each at the one request that is to meet a fault.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/reliability/fault_service.h"
#include "tests/test_host.h"

namespace faults {

/// What the module makes of the body of the answer.
enum class Document { kServices, kAccount, kItem, kPage, kSession, kAccepted, kBytes, kNone };

/// A service and one protocol object that uses it.
struct Rig {
  /// Connected, unless told otherwise; throws when that fails.
  explicit Rig(bool connect = true);

  /// A new object in place of the old one.
  void Renew();
  AERROR Connect() { return protocol->Connect(&host, R"({"args":{},"results":{}})"); }

  FaultService service;
  TestHost host;
  ProtocolPtr protocol;
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();  ///< of transfers
  std::string reached;  ///< what of the last operation has reached the host, as text
};

struct Operation {
  std::string name;
  std::string key;  ///< of the request that meets the fault
  Document document;
  AERROR failure;  ///< the result when that request fails
  int before;      ///< requests that come first
  bool connects;   ///< wants a new object each time
  AERROR (*run)(Rig&);
  std::string untouched;  ///< `reached` when nothing of the answer has reached the host
  std::string whole;      ///< `reached` when all of it has
};

const std::vector<Operation>& Operations();

/// Throws for a name that none has.
const Operation& Find(std::string_view name);

/// "id|name|size|eTag|created|modified|attr" of a record.
std::string TextOf(const _FS_FILE_V2& file);

/// Length of what Read asks for.
inline constexpr std::size_t kReadLength = 100;

}  // namespace faults
