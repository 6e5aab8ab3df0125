#include "onedrive4b/entry_points.h"

#include <cstdlib>
#include <cstring>
#include <memory>

#include "protocol/onedrivebiz.h"

using onedrive4b::OneDriveBiz;

namespace {

constexpr int kSupportBits = 3;

}  // namespace

int GetSupports() noexcept { return kSupportBits; }

bool BindAsyncQ(AsyncQ* queue) noexcept {
  if (queue == nullptr) return false;
  aq = queue;
  return true;
}

void UnbindAsyncQ() noexcept { aq = nullptr; }

bool BindLogger(ILog* log) noexcept {
  if (log == nullptr) return false;
  logger = log;
  return true;
}

void UnbindLogger() noexcept { logger = nullptr; }

char* GetSupportProtocol(char** out) noexcept {
  char* name = strdup(OneDriveBiz::kProtocolName);
  if (out != nullptr) *out = name;
  return name;
}

void FreeP(void* block) noexcept { std::free(block); }

const char* GetProtocolVersion() noexcept { return protocol_version; }

bool GetProtocol(const char* name, IProtocolManager* manager, IProtocol_V2** out) noexcept {
  if (out == nullptr) return false;
  try {
    *out = std::make_unique<OneDriveBiz>(name, manager).release();
    return true;
  } catch (...) {
    return false;
  }
}

int GetAuthType() noexcept { return OneDriveBiz::GetAuthType(); }

AERROR GetAuthFields(char* buffer, int* length) noexcept {
  return OneDriveBiz::GetAuthFields(buffer, length);
}

AERROR GetOptFields(char* buffer, int* length) noexcept {
  return OneDriveBiz::GetOptFields(buffer, length);
}
