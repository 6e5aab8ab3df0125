// Where the service is and how to reach it, from the command line, a service file or the profile.
//
// Plain values and pure functions; callable from any thread.
#pragma once

#include <array>
#include <filesystem>
#include <string>
#include <string_view>

#include "host/proxy.h"

namespace host {

/// Addresses and names of one deployment of the service. Empty members are not set.
struct ServiceSettings {
  std::string token_url;           ///< where refresh tokens are exchanged
  std::string client_id;           ///< the application's registration at the authority
  std::string discovery_url;       ///< the discovery document
  std::string discovery_resource;  ///< what discovery tokens are for
  std::string service_endpoint;    ///< given together with `service_resource`: no discovery
  std::string service_resource;
  std::string unified_api;  ///< what is asked where the user's drive is, without a path
  std::string drive_from;   ///< what `service_endpoint` is from, if not given: kDriveFrom...
};

/// A member of ServiceSettings and its name in profiles and service files.
struct ServiceSetting {
  const char* name;
  std::string ServiceSettings::*member;
  bool finds_drive = false;  ///< one of the two ways to the user's drive
};

inline constexpr std::array<ServiceSetting, 8> kServiceSettings = {{
    {"token_url", &ServiceSettings::token_url},
    {"client_id", &ServiceSettings::client_id},
    {"discovery_resource", &ServiceSettings::discovery_resource},
    {"discovery_url", &ServiceSettings::discovery_url, true},
    {"service_endpoint", &ServiceSettings::service_endpoint, true},
    {"service_resource", &ServiceSettings::service_resource, true},
    {"drive_from", &ServiceSettings::drive_from, true},
    {"unified_api", &ServiceSettings::unified_api},
}};

inline constexpr const char* kDefaultDiscoveryResource = "https://api.office.com/discovery/";

inline constexpr const char* kDriveFromUnifiedApi = "unified API";
inline constexpr const char* kDriveFromSite = "site";

/// Fills members of `settings` that are empty from `fallback`. The members that find the drive are
/// taken together or not at all: half of one deployment and half of another would find none.
void FillMissing(ServiceSettings& settings, const ServiceSettings& fallback);

/// Which authority, and where the drive is asked for: what neither option nor profile says.
struct AuthorityChoice {
  std::string cloud;      ///< its name; empty: of the authority, or global
  std::string authority;  ///< empty: the cloud's
  std::string tenant;     ///< empty: kDefaultTenant
};

/// Fills the token address and that of the unified API where they are not set. A tenant alone is
/// one of the authority that is `known`: the tokens of that one are sent to no other. Throws a
/// kUsage Failure when there is no such cloud.
void SetAuthority(ServiceSettings& settings, const AuthorityChoice& choice,
                  const ServiceSettings& known = {});

/// Whether the drive's address has to be found before it can be used.
bool NeedsDrive(const ServiceSettings& settings);

/// Throws a kUsage Failure naming the setting that is missing, is not an http or https URL, or
/// would send tokens unencrypted to another machine.
void CheckSettings(const ServiceSettings& settings);

/// What a running service wrote about itself: its settings and a refresh token.
struct ServiceFile {
  ServiceSettings settings;
  std::string refresh_token;
};
ServiceFile ReadServiceFile(const std::filesystem::path& file);

/// Where the drive is found: the preset endpoint, or the discovery document.
const std::string& DriveAddress(const ServiceSettings& settings);

/// The text for the module's "option_fields" option.
std::string OptionFields(const ProxySettings& proxy, bool show_shared);

}  // namespace host
