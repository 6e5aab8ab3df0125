#include "cli/emulated_service.h"

#include <exception>

#include "emulator/service.h"
#include "host/authority.h"
#include "host/failure.h"

namespace cli {
namespace {

std::unique_ptr<emulator::Service> Start() {
  emulator::ServiceOptions options;
  // No bundle that serves a real account ever trusts a certificate of the emulator.
  options.tls = false;
  try {
    return std::make_unique<emulator::Service>(options);
  } catch (const std::exception& error) {
    throw host::Failure(host::FailureKind::kFailed,
                        std::string("the emulator cannot be started: ") + error.what());
  }
}

}  // namespace

EmulatedService::EmulatedService() : service_(Start()) {}

EmulatedService::~EmulatedService() = default;

host::ServiceSettings EmulatedService::Settings() const {
  host::ServiceSettings settings;
  settings.token_url = host::TokenUrl(service_->AuthorityUrl(), {});
  settings.client_id = service_->ClientId();
  settings.unified_api = service_->UnifiedApiUrl();
  return settings;
}

std::string EmulatedService::IssueRefreshToken() { return service_->IssueRefreshToken(); }

}  // namespace cli
