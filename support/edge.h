// Where exceptions end: every operation that the host calls runs inside AtEdge.
#pragma once

#include "onedrive4b/aerror.h"

namespace onedrive4b {

/// Runs `operation` and returns its result. A thrown AERROR becomes the result; everything else,
/// exhausted memory and the JSON library's errors included, becomes FAILED.
template <typename Operation>
AERROR AtEdge(Operation&& operation) noexcept {
  try {
    return operation();
  } catch (AERROR error) {
    return error;
  } catch (...) {
    return FAILED;
  }
}

}  // namespace onedrive4b
