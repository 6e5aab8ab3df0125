#include "transport/certificate_bundle.h"

#include <cstdint>
#include <filesystem>
#include <system_error>

#ifdef __APPLE__
#include <mach-o/dyld.h>
#endif

namespace onedrive4b {

namespace {

namespace fs = std::filesystem;

#ifdef __APPLE__
fs::path RunningProgram() {
  std::uint32_t size = 0;
  _NSGetExecutablePath(nullptr, &size);
  std::string path(size, '\0');
  if (_NSGetExecutablePath(path.data(), &size) != 0) return {};
  return path.c_str();
}
#else
fs::path RunningProgram() { return "/proc/self/exe"; }
#endif

}  // namespace

std::string CertificateBundleFolder() {
  std::error_code error;
  const fs::path program = fs::canonical(RunningProgram(), error);
  if (error) return {};
  const fs::path folder = fs::canonical(program.parent_path() / "../Frameworks", error);
  if (error || !fs::is_regular_file(folder / kCertificateBundleName, error)) return {};
  return folder.string() + "/";
}

}  // namespace onedrive4b
