// Runs the programs of the benchmark.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace bench {

/// How one measurement came out. Times in seconds, of the client alone.
struct Sample {
  double wall = 0;
  double cpu = 0;
  double work_cpu = 0;     ///< without that of the process's start and end; 0 for a command
  long over_idle_kib = 0;  ///< most memory at any time, over that before the work
  long kept_kib = 0;       ///< memory over that before the work, once it is done
  long trimmed_kib = 0;    ///< the same, after free memory has gone back to the system
};

/// A program with its output on a pipe. Killed and awaited in the destructor, if need be.
class Process {
 public:
  /// The program's input ends when the object does. Throws std::system_error.
  explicit Process(const std::vector<std::string>& arguments);
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;
  ~Process();

  std::string ReadLine();
  /// Reads to the end of the output and waits for the program. Throws std::runtime_error when it
  /// fails or takes longer than two minutes. `cpu` becomes the seconds that it has used.
  std::string Finish(double& cpu);

 private:
  bool ReadMore();

  std::string name_;
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
  std::string text_;
};

}  // namespace bench
