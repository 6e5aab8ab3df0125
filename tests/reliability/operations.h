// The one catalogue of operations that talk to the service, each at the request that a test singles
// out: to spoil its answer, to hold it back, or to look for secrets in what is logged of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tests/reliability/fault_service.h"
#include "tests/test_host.h"

namespace faults {

/// What the module makes of the body of the answer.
enum class Document { kServices, kAccount, kItem, kPage, kSession, kAccepted, kBytes, kNone };

inline constexpr const char* kEmptyCredential = R"({"args":{},"results":{}})";

/// One call of an operation. Calls on one object may run at the same time, each with its own.
struct Call {
  IProtocol_V2& drive;
  TestHost& host;
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();  ///< of transfers
  std::string reached = {};  ///< what the operation handed to the host, as text
};

struct Operation {
  std::string name;
  std::string key;  ///< of the request in question; see FaultService
  Document document;
  AERROR failure;  ///< the result when that request fails
  int before;      ///< requests that come first
  bool connects;   ///< needs a new object each time
  AERROR (*run)(Call&);
  std::string untouched;  ///< `reached` when nothing of the answer has reached the host
  std::string whole;      ///< `reached` when all of it has
};

const std::vector<Operation>& Operations();

/// Throws for a name that none has.
const Operation& Find(std::string_view name);

/// Every operation of a connected object, once, whichever of its requests are in question.
std::vector<Operation> OperationsOfConnected();

/// A service, and one protocol object that uses it.
struct Rig {
  /// Connected, unless told otherwise; throws when that fails.
  explicit Rig(bool connect = true);

  /// An object that knows the service and is not connected.
  ProtocolPtr Made();
  void Renew() { protocol = Made(); }
  AERROR Connect() { return protocol->Connect(&host, kEmptyCredential); }
  AERROR Run(const Operation& operation);

  FaultService service;
  TestHost host;
  ProtocolPtr protocol;
  std::shared_ptr<_FS_HANDLE> handle = std::make_shared<_FS_HANDLE>();  ///< of transfers
  std::string reached;  ///< see Call; of the last operation run
};

/// "id|name|size|eTag|created|modified|attr" of a record.
std::string TextOf(const _FS_FILE_V2& file);

/// Length of what Read asks for.
inline constexpr std::size_t kReadLength = 100;

/// The smallest size that takes an upload session.
inline constexpr std::int64_t kSessionSize = 104857600;

}  // namespace faults
