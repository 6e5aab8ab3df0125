#include "emulator/api/unified_api.h"

#include "base/json_text.h"
#include "emulator/http/service_error.h"

namespace emulator {

Response UnifiedApi::Handle(const Request& request) {
  const Identity user = parts_.authority.Authenticate(request, resource_);
  if (request.Path() != "/v1.0/me/drive") throw InvalidRequest("Unsupported segment type.");
  if (request.method != "GET" && request.method != "HEAD") throw MethodNotAllowed("GET, HEAD");
  for (const Drive* drive : parts_.drives) {
    if (drive->Owner().id != user.id) continue;
    Json::Value document = parts_.json.OfDrive(*drive);
    document["@odata.context"] = resource_ + "/v1.0/$metadata#drives/$entity";
    return JsonResponse(200, base::CompactJson(document));
  }
  throw ServiceError(404, "itemNotFound", "The user has no drive.");
}

}  // namespace emulator
