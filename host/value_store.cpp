#include "host/value_store.h"

#include <cerrno>
#include <utility>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include "base/json_text.h"
#include "host/failure.h"
#include "host/local_files.h"
#include "host/text.h"

namespace host {
namespace {

constexpr std::size_t kMostBytes = 1 << 20;
constexpr const char* kSections = "values";

std::filesystem::path WithSuffix(const std::filesystem::path& file, const std::string& suffix) {
  return file.string() + suffix;
}

}  // namespace

ValueStore::Hold::Hold(ValueStore& store) : store_(store), lock_(store.mutex_) { store_.Lock(); }

ValueStore::Hold::~Hold() { store_.Unlock(); }

ValueStore::ValueStore(std::filesystem::path file) : file_(std::move(file)) {
  try {
    Load();
  } catch (const Failure& failure) {
    warning_ = failure.what();
  }
  if (damaged_) {
    warning_ = "the profile file " + Quoted(file_.string()) +
               " is damaged and is ignored; the next change keeps it as " +
               Quoted(file_.string() + ".damaged");
  }
}

std::string ValueStore::Get(const std::string& section, const std::string& key) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  Load();
  const auto found = sections_.find(section);
  if (found == sections_.end()) return {};
  const auto value = found->second.find(key);
  return value == found->second.end() ? std::string() : value->second;
}

void ValueStore::Set(const std::string& section, const std::string& key, const std::string& value) {
  Make({section, key, value});
}

void ValueStore::Erase(const std::string& section) { Make({section, {}, {}}); }

void ValueStore::Make(Change change) {
  const std::lock_guard<std::recursive_mutex> lock(mutex_);
  if (file_.empty()) return Apply(change);
  unsaved_.push_back(std::move(change));
  const Hold hold(*this);
  Load();
  Save();
  unsaved_.clear();
}

void ValueStore::Apply(const Change& change) {
  if (change.key.empty()) {
    sections_.erase(change.section);
  } else if (change.value.empty()) {
    sections_[change.section].erase(change.key);
  } else {
    sections_[change.section][change.key] = change.value;
  }
}

void ValueStore::Lock() {
  if (depth_++ > 0 || file_.empty()) return;
  try {
    PrepareFolder();
    const std::string name = WithSuffix(file_, ".lock");
    lock_file_ =
        base::UniqueFd(::open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock_file_) throw LocalFailure("open", name, errno);
    while (::flock(lock_file_.get(), LOCK_EX) != 0) {
      if (errno != EINTR) throw LocalFailure("lock", name, errno);
    }
  } catch (...) {
    --depth_;
    throw;
  }
}

void ValueStore::Unlock() {
  if (--depth_ == 0) lock_file_ = base::UniqueFd();
}

void ValueStore::Load() {
  if (file_.empty()) return;
  std::map<std::string, Section> before = std::exchange(sections_, {});
  try {
    const std::optional<std::string> text = ReadSmallFileIfAny(file_, kMostBytes);
    damaged_ = text && !Parse(*text);
    for (const Change& change : unsaved_) Apply(change);
  } catch (...) {
    sections_ = std::move(before);
    throw;
  }
}

bool ValueStore::Parse(const std::string& text) {
  const std::optional<Json::Value> document = base::ParseJsonObject(text);
  if (!document || !(*document)[kSections].isObject()) return false;
  std::map<std::string, Section> sections;
  const Json::Value& stored = (*document)[kSections];
  for (const std::string& section : stored.getMemberNames()) {
    if (!stored[section].isObject()) return false;
    for (const std::string& key : stored[section].getMemberNames()) {
      if (!stored[section][key].isString()) return false;
      sections[section][key] = stored[section][key].asString();
    }
  }
  sections_ = std::move(sections);
  return true;
}

void ValueStore::Save() {
  Json::Value document(Json::objectValue);
  document[kSections] = Json::Value(Json::objectValue);
  for (const auto& [section, values] : sections_) {
    for (const auto& [key, value] : values) document[kSections][section][key] = value;
  }
  if (damaged_) MoveDamagedFileAside();
  ReplacePrivateFile(file_, base::PrettyJson(document));
}

void ValueStore::PrepareFolder() const {
  const std::filesystem::path folder = file_.parent_path();
  std::error_code error;
  std::filesystem::create_directories(folder.parent_path(), error);
  if (::mkdir(folder.c_str(), 0700) == 0) return;
  if (errno != EEXIST) throw LocalFailure("create the folder", folder.string(), errno);
  struct stat status {};
  if (::stat(folder.c_str(), &status) != 0) throw LocalFailure("use", folder.string(), errno);
  if ((status.st_mode & 0077U) != 0 && ::chmod(folder.c_str(), 0700) != 0) {
    throw LocalFailure("make private", folder.string(), errno);
  }
}

void ValueStore::MoveDamagedFileAside() {
  std::filesystem::path aside = WithSuffix(file_, ".damaged");
  for (int number = 2; std::filesystem::exists(aside); ++number) {
    aside = WithSuffix(file_, ".damaged" + std::to_string(number));
  }
  if (::rename(file_.c_str(), aside.c_str()) != 0) {
    throw LocalFailure("move aside", file_.string(), errno);
  }
  damaged_ = false;
}

}  // namespace host
