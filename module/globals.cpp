// Data that the module exports under plain names. The handle pool, `cq`, is defined beside its
// class.
#include "onedrive4b/entry_points.h"

ILog* logger = nullptr;
AsyncQ* aq = nullptr;
const char* protocol_version = "1.0.0";
std::int64_t g_interval_refresh_token = 3600;
