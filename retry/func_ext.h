// A callable with a name.
#pragma once

#include <functional>
#include <string>
#include <utility>

namespace onedrive4b {

template <typename Signature>
struct FuncExt;

/// Request steps carry the name of their operation, which tags the log lines of the exchange;
/// status handlers carry "".
template <typename Result, typename... Arguments>
struct FuncExt<Result(Arguments...)> {
  FuncExt(std::function<Result(Arguments...)> callable, const char* label)
      : func(std::move(callable)), name(label != nullptr ? label : "") {}

  Result operator()(Arguments... arguments) const {
    return func(std::forward<Arguments>(arguments)...);
  }

  std::function<Result(Arguments...)> func;  ///< may be empty
  std::string name;
};

}  // namespace onedrive4b
