#include "bench/charts.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

namespace bench {
namespace {

constexpr double kLabels = 200;  // width of each part, in pixels
constexpr double kBars = 440;
constexpr double kValues = 60;
constexpr double kLine = 24;
constexpr double kTop = 40;

constexpr const char* kStyle = R"(<style>
text { font: 13px sans-serif; fill: #24292f; }
.title { font-weight: bold; }
.bar { fill: #4c8dd6; }
.target { stroke: #c2410c; stroke-width: 2; }
@media (prefers-color-scheme: dark) { text { fill: #d0d7de; } .target { stroke: #fb923c; } }
</style>
)";

}  // namespace

std::string ToSvg(const Chart& chart) {
  double most = 0;
  bool targets = false;
  for (const Bar& bar : chart.bars) {
    most = std::max({most, bar.value, bar.target});
    targets = targets || bar.target > 0;
  }
  const double height = kTop + kLine * static_cast<double>(chart.bars.size()) + (targets ? 30 : 10);
  std::ostringstream svg;
  svg << std::fixed << std::setprecision(2);
  svg << R"(<svg xmlns="http://www.w3.org/2000/svg" width=")" << kLabels + kBars + kValues
      << "\" height=\"" << height << "\" role=\"img\">\n"
      << "<title>" << chart.title << "</title>\n"
      << kStyle << R"(<text class="title" x="10" y="22">)" << chart.title << "</text>\n";
  double y = kTop;
  for (const Bar& bar : chart.bars) {
    const double length = most > 0 ? bar.value / most * kBars : 0;
    svg << "<text x=\"" << kLabels - 8 << "\" y=\"" << y + 15 << R"(" text-anchor="end">)"
        << bar.label << "</text><rect class=\"bar\" x=\"" << kLabels << "\" y=\"" << y + 3
        << "\" width=\"" << length << "\" height=\"" << kLine - 8 << "\"/><text x=\""
        << kLabels + kBars + 8 << "\" y=\"" << y + 15 << "\">" << bar.value << "</text>\n";
    if (bar.target > 0) {
      const double x = kLabels + bar.target / most * kBars;
      svg << "<line class=\"target\" x1=\"" << x << "\" x2=\"" << x << "\" y1=\"" << y << "\" y2=\""
          << y + kLine - 2 << "\"/>\n";
    }
    y += kLine;
  }
  if (targets) {
    svg << "<line class=\"target\" x1=\"" << kLabels << "\" x2=\"" << kLabels << "\" y1=\"" << y + 4
        << "\" y2=\"" << y + 22 << "\"/><text x=\"" << kLabels + 8 << "\" y=\"" << y + 18
        << "\">target</text>\n";
  }
  svg << "</svg>\n";
  return svg.str();
}

}  // namespace bench
