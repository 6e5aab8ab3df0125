// ModuleLibrary: the loaded protocol module and the entry points that the host uses.
//
// Threads: the entry points follow the module's own rules (onedrive4b/entry_points.h).
// Lifetime: everything that came from the module must be gone before the library is destroyed.
#pragma once

#include <filesystem>
#include <memory>

#include "onedrive4b/entry_points.h"

namespace host {

class ModuleLibrary {
 public:
  /// Loads `file`; an empty name means the installed place next to the program, else the system's
  /// library path. Throws a kModule Failure if the file is missing, lacks an entry point or
  /// implements another protocol.
  explicit ModuleLibrary(const std::filesystem::path& file);

  decltype(&::BindLogger) bind_logger = nullptr;
  decltype(&::UnbindLogger) unbind_logger = nullptr;
  decltype(&::GetProtocol) get_protocol = nullptr;
  decltype(&::GetAERRORA) error_name = nullptr;
  decltype(&::GetProtocolVersion) protocol_version = nullptr;

 private:
  struct Closer {
    void operator()(void* library) const noexcept;
  };

  void CheckProtocol() const;

  std::unique_ptr<void, Closer> library_;
};

/// Folder of the running program's real file, links resolved.
std::filesystem::path ProgramFolder();

/// The certificate bundle that is shipped next to the program; empty if there is none.
std::filesystem::path CertificateBundle();

}  // namespace host
