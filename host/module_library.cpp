#include "host/module_library.h"

#include <string>
#include <system_error>

#include <dlfcn.h>

#include "host/failure.h"

namespace host {
namespace {

constexpr const char* kLibraryName = "libonedrive4b.so";
constexpr const char* kProtocolName = "onedrive4b";

std::string LoaderError() {
  // glibc keeps the text per thread.
  const char* text = dlerror();  // NOLINT(concurrency-mt-unsafe)
  return text == nullptr ? "unknown reason" : text;
}

Failure LoadFailure(const std::string& reason) {
  return Failure(FailureKind::kModule, "the module cannot be loaded: " + reason,
                 "name the file with --module");
}

template <typename Function>
void Resolve(void* library, const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(library, name));
  if (function == nullptr) throw LoadFailure(LoaderError());
}

std::filesystem::path DefaultFile() {
  const std::filesystem::path beside = ProgramFolder() / "../lib" / kLibraryName;
  std::error_code error;
  return std::filesystem::exists(beside, error) ? beside : kLibraryName;
}

}  // namespace

void ModuleLibrary::Closer::operator()(void* library) const noexcept { dlclose(library); }

ModuleLibrary::ModuleLibrary(const std::filesystem::path& file)
    // The module is linked to bind its own symbols at once. RTLD_NOW would also bind all those of
    // the libraries behind libcurl, which most runs never call.
    : library_(dlopen((file.empty() ? DefaultFile() : file).c_str(), RTLD_LAZY | RTLD_LOCAL)) {
  if (!library_) throw LoadFailure(LoaderError());
  Resolve(library_.get(), "BindLogger", bind_logger);
  Resolve(library_.get(), "UnbindLogger", unbind_logger);
  Resolve(library_.get(), "GetProtocol", get_protocol);
  Resolve(library_.get(), "GetAERRORA", error_name);
  Resolve(library_.get(), "GetProtocolVersion", protocol_version);
  CheckProtocol();
}

void ModuleLibrary::CheckProtocol() const {
  decltype(&::GetSupportProtocol) support_protocol = nullptr;
  decltype(&::FreeP) free_text = nullptr;
  Resolve(library_.get(), "GetSupportProtocol", support_protocol);
  Resolve(library_.get(), "FreeP", free_text);
  const std::unique_ptr<char, decltype(free_text)> name(support_protocol(nullptr), free_text);
  if (!name || std::string(name.get()) != kProtocolName) {
    throw LoadFailure("it implements another protocol");
  }
}

std::filesystem::path ProgramFolder() {
  std::error_code error;
  const auto program = std::filesystem::canonical("/proc/self/exe", error);
  return error ? std::filesystem::path(".") : program.parent_path();
}

std::filesystem::path CertificateBundle() {
  const std::filesystem::path bundle = ProgramFolder() / "../Frameworks/cacert.pem";
  std::error_code error;
  return std::filesystem::exists(bundle, error) ? bundle : std::filesystem::path();
}

}  // namespace host
