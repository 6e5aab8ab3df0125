// Texts and numbers that the object itself knows; only the quota needs a request.
#include <cstdint>
#include <cstring>
#include <string>

#include "protocol/about.h"
#include "protocol/onedrivebiz.h"
#include "support/edge.h"

namespace onedrive4b {

namespace {

constexpr int kFeatures = 0x140;
constexpr int kAuthType = 2;

// Copies the text with its NUL and sets `*length` to its length without the NUL. On entry
// `*length` is what the buffer can hold in addition to the NUL; if that is too little, the result
// is INSUFFICIENT_BUFFER and nothing changes.
AERROR CopyText(const std::string& text, char* buffer, int* length) {
  if (buffer == nullptr || length == nullptr) return INVALID_PARAMETER;
  if (*length < static_cast<std::int64_t>(text.size())) return INSUFFICIENT_BUFFER;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  *length = static_cast<int>(text.size());
  return SUCCESS;
}

// Copies a descriptor with its NUL into a buffer that can hold `*length` bytes and the NUL.
AERROR CopyDescriptor(const std::string& text, char* buffer, int* length) {
  if (*length < static_cast<std::int64_t>(text.size())) return INSUFFICIENT_BUFFER;
  if (buffer == nullptr) return INVALID_PARAMETER;
  std::memset(buffer, 0, static_cast<std::size_t>(*length));
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  *length = static_cast<int>(text.size());
  return SUCCESS;
}

std::string LoginPage() {
  JsonObject page = JsonObject::GetEmptyObject();
  page["protocol"] = std::string(OneDriveBiz::kProtocolName);
  JsonObject params = page["params"];
  params["width"] = std::string("500");
  params["height"] = std::string("600");
  params["title"] = std::string("OneDrive for Business Login");
  return page.ToText();
}

std::string OptionsPage() {
  JsonObject checkbox = JsonObject::GetEmptyObject();
  checkbox["type"] = std::string("checkbox");
  checkbox["text"] = std::string("Show shared file/folders");
  checkbox.Insert("default", JsonObject("true"));

  JsonObject page = JsonObject::GetEmptyObject();
  JsonObject group = page["options"];
  group["type"] = std::string("group");
  group["text"] = std::string("Options");
  group["controls"].Insert("show_shared", checkbox);
  group["order"].InsertArrayItem("show_shared");
  page["order"].InsertArrayItem("options");
  return page.ToText();
}

}  // namespace

AERROR OneDriveBiz::GetQuota(std::uint64_t* total, std::uint64_t* used) {
  return AtEdge([&] { return about_ ? about_->GetQuota(total, used) : INVALID_PARAMETER; });
}

AERROR OneDriveBiz::GetUserInfo(char* buffer, int* length) {
  return AtEdge([&] {
    if (buffer == nullptr || length == nullptr || !about_) return INVALID_PARAMETER;
    return CopyText(about_->GetDisplayName(), buffer, length);
  });
}

AERROR OneDriveBiz::GetCredential(char* buffer, int* length) {
  return AtEdge([&] {
    if (!auth_) return FS_NEED_AUTHORIZE;
    const AERROR result = CopyText(credential_, buffer, length);
    if (result == SUCCESS) manager_->SetValue(pid_.c_str(), "pid", pid_.c_str());
    return result;
  });
}

AERROR OneDriveBiz::GetRootID(char* buffer, int* length) {
  return AtEdge([&] {
    if (length == nullptr) return ACCESS_DENIED;
    return CopyText(show_shared_ ? "" : "root", buffer, length);
  });
}

int OneDriveBiz::GetAuthType() noexcept { return kAuthType; }

AERROR OneDriveBiz::GetAuthFields(char* buffer, int* length) noexcept {
  return AtEdge([&] {
    if (length == nullptr) return INVALID_PARAMETER;
    return CopyDescriptor(LoginPage(), buffer, length);
  });
}

AERROR OneDriveBiz::GetOptFields(char* buffer, int* length) noexcept {
  return AtEdge([&] {
    if (length == nullptr) return INVALID_PARAMETER;
    const std::string text = OptionsPage();
    const AERROR result = CopyDescriptor(text, buffer, length);
    if (result == INSUFFICIENT_BUFFER) *length = static_cast<int>(text.size());
    return result;
  });
}

AERROR OneDriveBiz::GetType(char** out) {
  if (out == nullptr) return INVALID_PARAMETER;
  // Static and never freed; only the host's signature is not const.
  *out = const_cast<char*>(kProtocolName);
  return SUCCESS;
}

int OneDriveBiz::GetFeature() { return kFeatures; }

AERROR OneDriveBiz::GetIdentifier(char*, int*) { return SUCCESS; }

}  // namespace onedrive4b
