// Bar charts as SVG, legible on light and dark pages.
#pragma once

#include <string>
#include <vector>

namespace bench {

struct Bar {
  std::string label;
  double value = 0;
  double target = 0;  ///< marked across the bar; 0 for none
};

struct Chart {
  const char* name;
  std::string title;
  std::vector<Bar> bars;
};

std::string ToSvg(const Chart& chart);

}  // namespace bench
