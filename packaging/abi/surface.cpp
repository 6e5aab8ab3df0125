// Names every type that crosses the boundary between host and module, so that the debug information
// of this one library describes all of it. Never loaded; only read by abidw.
#include "onedrive4b/entry_points.h"

namespace {

struct EntryPoints {
  decltype(&GetSupports) get_supports;
  decltype(&BindAsyncQ) bind_async_q;
  decltype(&UnbindAsyncQ) unbind_async_q;
  decltype(&BindLogger) bind_logger;
  decltype(&UnbindLogger) unbind_logger;
  decltype(&GetSupportProtocol) get_support_protocol;
  decltype(&FreeP) free_p;
  decltype(&GetProtocolVersion) get_protocol_version;
  decltype(&GetProtocol) get_protocol;
  decltype(&GetAuthType) get_auth_type;
  decltype(&GetAuthFields) get_auth_fields;
  decltype(&GetOptFields) get_opt_fields;
  decltype(&GetAERRORA) get_aerrora;
  decltype(&ConvertAERROR) convert_aerror;
  decltype(&logger) logger_data;
  decltype(&aq) aq_data;
  decltype(&protocol_version) protocol_version_data;
  decltype(&g_interval_refresh_token) g_interval_refresh_token_data;
};

}  // namespace

extern "C" {
ONEDRIVE4B_EXPORT void Surface(EntryPoints* entry_points, IProtocol_V2* protocol, ILog* log,
                               IAsyncObj* job, IProtocolManager* manager, IProtocolAuth* auth,
                               IFileList* list, IFetchCallback* fetch, ICacheIO* cache,
                               _FS_FILE_V2* file, _FS_HANDLE* handle, _CACHEIO_REQUEST* request,
                               _PROXYINFO* proxy, UPLOAD_FLAG flag);
}

void Surface(EntryPoints* /*entry_points*/, IProtocol_V2* /*protocol*/, ILog* /*log*/,
             IAsyncObj* /*job*/, IProtocolManager* /*manager*/, IProtocolAuth* /*auth*/,
             IFileList* /*list*/, IFetchCallback* /*fetch*/, ICacheIO* /*cache*/,
             _FS_FILE_V2* /*file*/, _FS_HANDLE* /*handle*/, _CACHEIO_REQUEST* /*request*/,
             _PROXYINFO* /*proxy*/, UPLOAD_FLAG /*flag*/) {}
