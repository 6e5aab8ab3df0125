#include "cli/output.h"

#include <algorithm>
#include <cerrno>

#include "base/files.h"
#include "host/failure.h"
#include "host/text.h"

namespace cli {
namespace {

constexpr std::size_t kBufferBytes = 1 << 16;

}  // namespace

void Output::Write(std::string_view text) {
  buffer_ += text;
  if (buffer_.size() >= kBufferBytes) Flush();
}

void Output::Flush() {
  const std::string text = std::exchange(buffer_, {});
  if (!base::WriteAll(fd_, text)) throw host::LocalFailure("write to", "standard output", errno);
}

void Table::WriteTo(Output& out) const {
  std::vector<std::size_t> widths(right_aligned_.size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < widths.size(); ++i) {
      widths[i] = std::max(widths[i], host::DisplayWidth(row[i]));
    }
  }
  for (const auto& row : rows_) {
    std::string line;
    for (std::size_t i = 0; i < widths.size(); ++i) {
      if (i > 0) line += "  ";
      const bool last = i + 1 == widths.size();
      line +=
          last && !right_aligned_[i] ? row[i] : host::Padded(row[i], widths[i], right_aligned_[i]);
    }
    out.Write(line + "\n");
  }
}

}  // namespace cli
