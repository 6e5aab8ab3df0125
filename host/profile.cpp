#include "host/profile.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "host/failure.h"

namespace host {
namespace {

constexpr const char* kRefreshToken = "refresh_token";
constexpr const char* kSettingsSection = ":settings";  // no profile can have this name
constexpr std::size_t kLongestName = 64;

AERROR CopyText(const std::string& text, char* buffer, const int* length) {
  if (buffer == nullptr || length == nullptr || *length <= 0) return INVALID_PARAMETER;
  if (text.size() >= static_cast<std::size_t>(*length)) return INSUFFICIENT_BUFFER;
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return SUCCESS;
}

bool IsNameCharacter(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-';
}

/// An environment variable that holds an absolute path; the rule of the XDG base directories.
std::filesystem::path AbsolutePathFrom(const char* variable) {
  // The environment is only read before the program starts its threads.
  const char* value = std::getenv(variable);  // NOLINT(concurrency-mt-unsafe)
  if (value == nullptr || *value != '/') return {};
  return value;
}

}  // namespace

bool IsProfileName(const std::string& name) {
  return !name.empty() && name.size() <= kLongestName && name[0] != '.' && name[0] != '-' &&
         std::all_of(name.begin(), name.end(), IsNameCharacter);
}

std::filesystem::path ProfileFile(const std::string& name) {
  if (!IsProfileName(name)) {
    throw Failure(FailureKind::kUsage, "invalid profile name",
                  "use letters, digits, '.', '_' and '-'");
  }
  std::filesystem::path folder = AbsolutePathFrom("XDG_STATE_HOME");
  if (folder.empty()) {
    folder = AbsolutePathFrom("HOME");
    if (folder.empty()) {
      throw Failure(FailureKind::kUsage,
                    "no folder for profiles: neither HOME nor XDG_STATE_HOME is set");
    }
    folder /= ".local/state";
  }
  return folder / "onedrive4b" / (name + ".json");
}

Profile::Profile(ValueStore& store, std::string name) : store_(&store), name_(std::move(name)) {}

AERROR Profile::GetPID(const char* /*module_key*/, char* buffer, int* length) {
  return CopyText(name_, buffer, length);
}

AERROR Profile::SetValue(const char* pid, const char* key, const char* value) {
  if (pid == nullptr || key == nullptr || value == nullptr) return INVALID_PARAMETER;
  try {
    if (std::strcmp(key, kRefreshToken) == 0) {
      const std::lock_guard<std::mutex> lock(mutex_);
      withdrawn_ = *value == '\0';
      if (withdrawn_ || obtained_) return SUCCESS;
    }
    store().Set(pid, key, value);
  } catch (const std::exception&) {
    return SAVE_FAILED;
  }
  return SUCCESS;
}

AERROR Profile::GetValue(const char* pid, const char* key, char* buffer, int* length) {
  if (pid == nullptr || key == nullptr) return INVALID_PARAMETER;
  try {
    if (std::strcmp(key, kRefreshToken) == 0) {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (withdrawn_) return CopyText("", buffer, length);
    }
    // A token longer than the module's buffer stays with the host, which knows it anyway.
    return CopyText(store().Get(pid, key), buffer, length);
  } catch (const std::exception&) {
    return FAILED;
  }
}

std::string Profile::RefreshToken() { return store().Get(name_, kRefreshToken); }

void Profile::KeepRefreshToken(const std::string& token) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    obtained_ = true;
    withdrawn_ = false;
  }
  store().Set(name_, kRefreshToken, token);
}

ServiceSettings Profile::Settings() {
  ServiceSettings settings;
  for (const ServiceSetting& setting : kServiceSettings) {
    settings.*setting.member = store().Get(kSettingsSection, setting.name);
  }
  return settings;
}

void Profile::KeepSettings(const ServiceSettings& settings) {
  const ValueStore::Hold hold(store());
  for (const ServiceSetting& setting : kServiceSettings) {
    store().Set(kSettingsSection, setting.name, settings.*setting.member);
  }
}

void Profile::SignOut() {
  const ValueStore::Hold hold(store());
  store().Erase(name_);
}

void Profile::MoveTo(ValueStore& store) {
  const std::string token = RefreshToken();
  const ServiceSettings settings = Settings();
  store_ = &store;
  const ValueStore::Hold hold(store);
  KeepSettings(settings);
  KeepRefreshToken(token);
}

}  // namespace host
