#include "host/failure.h"

#include <new>
#include <system_error>

#include <unistd.h>

#include "base/files.h"
#include "host/text.h"

namespace host {

void PrintFailure(const Failure& failure) noexcept {
  try {
    std::string text = std::string("onedrive4b: ") + failure.what() + "\n";
    if (!failure.advice().empty()) text += "onedrive4b: hint: " + failure.advice() + "\n";
    base::WriteAll(STDERR_FILENO, text);
  } catch (const std::bad_alloc&) {
    base::WriteAll(STDERR_FILENO, failure.what());
  }
}

Failure LocalFailure(const std::string& action, const std::string& path, int error_number) {
  return Failure(ExitCode::kLocal, "cannot " + action + " " + Quoted(path) + ": " +
                                       std::system_category().message(error_number));
}

}  // namespace host
