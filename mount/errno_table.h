// The errno that programs get for each reason for which the drive refuses an operation.
#pragma once

#include <system_error>

#include "drive/error.h"

namespace mounted {

int ErrnoOf(drive::Reason reason) noexcept;

/// What a request ends with when the mount itself refuses it.
inline std::system_error Refusal(int error_number) {
  return {error_number, std::generic_category()};
}

}  // namespace mounted
