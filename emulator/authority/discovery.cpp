#include "emulator/authority/discovery.h"

#include "base/json_text.h"

namespace emulator {
namespace {

struct Entry {
  std::string capability;
  std::string version;
  std::string endpoint;
  std::string resource;
  std::string service_id = "O365_SHAREPOINT";
  std::string service_name = "Office 365 SharePoint";
};

Json::Value ToJson(const Entry& entry, const std::string& context) {
  constexpr int kOrganizationalAccount = 2;
  const std::string key = entry.capability + "@" + entry.service_id;
  Json::Value value;
  value["@odata.type"] = "#Microsoft.DiscoveryServices.ServiceInfo";
  value["@odata.id"] = context + "services('" + key + "')";
  value["@odata.editLink"] = "services('" + key + "')";
  value["capability"] = entry.capability;
  value["entityKey"] = key;
  value["providerId"] = "72f988bf-86f1-41af-91ab-2d7cd011db47";
  value["providerName"] = "Microsoft";
  value["serviceAccountType"] = kOrganizationalAccount;
  value["serviceApiVersion"] = entry.version;
  value["serviceEndpointUri"] = entry.endpoint;
  value["serviceId"] = entry.service_id;
  value["serviceName"] = entry.service_name;
  value["serviceResourceId"] = entry.resource;
  return value;
}

}  // namespace

std::string ServicesDocument(const DiscoveryAddresses& addresses) {
  const std::string context = addresses.origin + "/discovery/v2.0/me/";
  const std::string mail = addresses.origin + "/api/v2.0";
  const std::string older =
      addresses.drive_endpoint.substr(0, addresses.drive_endpoint.rfind('/')) + "/v1.0/me";
  const std::string site =
      addresses.drive_endpoint.substr(0, addresses.drive_endpoint.rfind("/_api"));
  const std::string mail_resource = addresses.origin + "/mail/";

  Json::Value document;
  document["@odata.context"] = context + "$metadata#allServices";
  Json::Value& entries = document["value"] = Json::arrayValue;
  for (const char* capability : {"Mail", "Calendar", "Contacts"}) {
    entries.append(
        ToJson({capability, "v2.0", mail, mail_resource, "O365_EXCHANGE", "Office 365 Exchange"},
               context));
  }
  entries.append(ToJson({"MyFiles", "v1.0", older, addresses.drive_resource}, context));
  entries.append(ToJson({"RootSite", "v2.0", site, addresses.drive_resource}, context));
  entries.append(
      ToJson({"MyFiles", "v2.0", addresses.drive_endpoint, addresses.drive_resource}, context));
  return base::CompactJson(document);
}

}  // namespace emulator
