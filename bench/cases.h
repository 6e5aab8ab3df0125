// What the benchmark runs, and what is expected of the module.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace bench {

/// A way to do the work.
struct Side {
  const char* name;                     ///< "module"
  const char* title;                    ///< as the table shows it
  const char* program;                  ///< of the benchmark, or "curl"
  std::vector<std::string> parameters;  ///< besides those of the case
};

/// One comparison. Targets of 0 are none.
struct Case {
  std::string name;
  std::string title;
  std::string kind;  ///< see Workload
  std::vector<std::string> parameters;
  std::int64_t amount = 1;          ///< bytes, calls or entries of one measurement
  std::vector<const char*> others;  ///< names of the sides beside the module and "bare"
  double least_speed = 0;           ///< of the bare client's
  double most_cpu = 0;              ///< of the bare client's
  double most_added_us = 0;         ///< CPU per call over the bare client's
  int repeats = 1;                  ///< measurements of a round: more where processes differ more
};

/// The first two are the module and the bare client, which every case compares.
const std::vector<Side>& Sides();
const Side& SideOf(const std::string& name);

/// `quick` makes them short enough for a smoke run.
std::vector<Case> Cases(bool quick);

/// Bare transfers under buffers of different sizes.
std::vector<Side> SweepSides(bool upload);

}  // namespace bench
