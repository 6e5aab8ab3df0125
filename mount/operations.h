// The calls of the kernel, brought to a FileSystem, and its answers brought back.
//
// Threads: libfuse calls the operations from several threads at once.
#pragma once

#include "mount/fuse.h"

namespace mounted {

/// For fuse_session_new, with a FileSystem as the user data.
fuse_lowlevel_ops Operations() noexcept;

}  // namespace mounted
