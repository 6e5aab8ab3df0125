// The gzip coding of a body.
// Threads: a pure function. Lifetime: the result owns its bytes.
#pragma once

#include <string>
#include <string_view>

namespace emulator {

std::string Gzip(std::string_view bytes);

}  // namespace emulator
