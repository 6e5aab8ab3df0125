// What is free goes back to the system.
#pragma once

namespace onedrive4b {

/// Gives memory that the allocator keeps for later back to the operating system. Takes milliseconds
/// when there is much of it. Any thread. Without effect where the C library has no such call.
void ReturnFreeMemory();

}  // namespace onedrive4b
