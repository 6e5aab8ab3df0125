// How the programs of the benchmark end.
#pragma once

#include <cstdio>
#include <exception>

namespace bench {

/// What `main` returns, or 1 when it throws, with a line about it under the program's name.
template <typename Main>
int Guarded(const char* program, const Main& main) {
  try {
    return main();
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s: %s\n", program, error.what());
    return 1;
  }
}

}  // namespace bench
