// The functions and data that the module exports under plain names.
//
// A host looks each up with dlsym and calls it through `decltype(&Name)`:
//
//   auto get_protocol = reinterpret_cast<decltype(&GetProtocol)>(dlsym(module, "GetProtocol"));
//
// No function locks or throws. The Bind and Unbind functions must not race with operations of
// protocol objects: bind before the first object is made, unbind after the last one is released.
#pragma once

#include <cstdint>

#include "onedrive4b/aerror.h"
#include "onedrive4b/export.h"
#include "onedrive4b/interfaces.h"

extern "C" {

/// Support bits of the protocol.
ONEDRIVE4B_EXPORT int GetSupports() noexcept;

/// Stores the host's job queue. Returns false for null and keeps the earlier one.
ONEDRIVE4B_EXPORT bool BindAsyncQ(AsyncQ* queue) noexcept;
ONEDRIVE4B_EXPORT void UnbindAsyncQ() noexcept;

/// Stores the host's logger, which must live until UnbindLogger. Returns false for null and keeps
/// the earlier one.
ONEDRIVE4B_EXPORT bool BindLogger(ILog* log) noexcept;
ONEDRIVE4B_EXPORT void UnbindLogger() noexcept;

/// A fresh copy of the protocol's name, also stored in `*out` when `out` is not null. The host
/// releases it with FreeP. Null when memory is exhausted.
ONEDRIVE4B_EXPORT char* GetSupportProtocol(char** out) noexcept;

/// Releases a text that the module allocated. Null is ignored.
ONEDRIVE4B_EXPORT void FreeP(void* block) noexcept;

/// Static text; the same pointer on every call.
ONEDRIVE4B_EXPORT const char* GetProtocolVersion() noexcept;

/// Makes a protocol object, which the host ends with its Release. `manager` must outlive it;
/// without one the object cannot sign in. False, with `*out` unchanged, on failure.
ONEDRIVE4B_EXPORT bool GetProtocol(const char* name, IProtocolManager* manager,
                                   IProtocol_V2** out) noexcept;

/// The kind of authentication that the host must provide.
ONEDRIVE4B_EXPORT int GetAuthType() noexcept;

/// JSON description of the login window, copied with its NUL. `*length`: in, bytes that the buffer
/// can hold in addition to the NUL, all of which are zeroed first; out, the text's length.
/// INSUFFICIENT_BUFFER leaves buffer and `*length` unchanged.
ONEDRIVE4B_EXPORT AERROR GetAuthFields(char* buffer, int* length) noexcept;

/// JSON description of the options page. Like GetAuthFields, but INSUFFICIENT_BUFFER sets `*length`
/// to the required length.
ONEDRIVE4B_EXPORT AERROR GetOptFields(char* buffer, int* length) noexcept;

ONEDRIVE4B_EXPORT extern ILog* logger;                  ///< null until bound
ONEDRIVE4B_EXPORT extern AsyncQ* aq;                    ///< null until bound
ONEDRIVE4B_EXPORT extern const char* protocol_version;  ///< "1.0.0"

/// Seconds between two wake-ups of the token-refresh thread.
ONEDRIVE4B_EXPORT extern std::int64_t g_interval_refresh_token;
}
