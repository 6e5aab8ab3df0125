// The errno that programs get for each reason for which the drive refuses an operation.
#pragma once

#include "drive/error.h"

namespace mounted {

int ErrnoOf(drive::Reason reason) noexcept;

}  // namespace mounted
