// The figures of a run, for people and for programs.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "bench/cases.h"
#include "bench/process.h"

namespace bench {

/// All measurements of a case: by side, one a round.
struct Outcome {
  Case test;
  std::map<std::string, std::vector<Sample>> samples;
};

/// One line of the table: the module beside one other side. All are medians; the ratios are those
/// of the pairs.
struct Row {
  const Outcome* outcome;
  const Side* side;
  Sample module;
  Sample other;
  double speed = 0;  ///< of the other's: above 1 the module is faster
  double cpu = 0;    ///< of the other's: above 1 the module uses more
};

/// What a target came to.
struct Verdict {
  std::string what;
  std::string measured;
  std::string target;
  bool met = false;
};

struct Report {
  std::vector<Row> rows;
  std::vector<Verdict> verdicts;
};

/// The outcomes must outlive the report.
Report MakeReport(const std::vector<Outcome>& outcomes);

/// Two tables, which are Markdown as well as plain text.
std::string ToText(const Report& report);
std::string ToJson(const Report& report, const std::string& machine, int rounds);

/// "AMD EPYC, 2 processors, Linux 6.1.0, load 0.1 at the start"
std::string Machine();

/// Replaces the section of `document` between its two marks, and writes the charts beside it into a
/// folder of its name. Throws std::runtime_error when there are no marks.
void Record(const Report& report, const std::string& machine, int rounds,
            const std::string& document);

}  // namespace bench
