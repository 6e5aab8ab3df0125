// Returns free memory to the operating system.
#pragma once

namespace onedrive4b {

/// Returns memory that the allocator keeps for later use to the operating system, which can take
/// milliseconds. Any thread. No effect if the C library has no such call.
void ReturnFreeMemory();

}  // namespace onedrive4b
