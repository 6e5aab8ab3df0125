// What was seen, cell by cell, as Markdown: written to the file that ONEDRIVE4B_MATRIX names.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace faults {

/// One table. A row tells what most of its cells have in common, and which of them differ.
class Report {
 public:
  Report(const std::string& heading, const std::string& first_column) {
    const char* path = std::getenv("ONEDRIVE4B_MATRIX");
    if (path == nullptr) return;
    out_.open(path, std::ios::app);
    out_ << "### " << heading << "\n\n| " << first_column
         << " | cells | seen | but |\n|---|---|---|---|\n";
  }
  Report(const Report&) = delete;
  Report& operator=(const Report&) = delete;
  ~Report() {
    for (const auto& [name, cells] : rows_) out_ << Line(name, cells) << "\n";
    out_ << "\n";
  }

  void Add(const std::string& row, const std::string& label, const std::string& seen) {
    auto at = std::find_if(rows_.begin(), rows_.end(), [&](auto& r) { return r.first == row; });
    if (at == rows_.end()) at = rows_.insert(at, {row, {}});
    at->second.emplace_back(label, seen);
  }

 private:
  using Cells = std::vector<std::pair<std::string, std::string>>;  // label, what was seen

  static std::string Line(const std::string& name, const Cells& cells) {
    std::map<std::string, int> counts;
    for (const auto& cell : cells) ++counts[cell.second];
    const std::string most =
        std::max_element(counts.begin(), counts.end(), [](const auto& a, const auto& b) {
          return a.second < b.second;
        })->first;
    std::map<std::string, std::string> others;  // labels by what was seen, each once
    for (const auto& [label, seen] : cells) {
      if (seen == most || (others[seen] + ",").find(" " + label + ",") != std::string::npos)
        continue;
      others[seen] += (others[seen].empty() ? " " : ", ") + label;
    }
    std::string line = "| " + name + " | " + std::to_string(cells.size()) + " | " + most + " |";
    const char* separator = "";
    for (const auto& [seen, labels] : others) {
      line.append(separator).append(labels).append(": ").append(seen);
      separator = ";";
    }
    return line + " |";
  }

  std::ofstream out_;
  std::vector<std::pair<std::string, Cells>> rows_;
};

}  // namespace faults
