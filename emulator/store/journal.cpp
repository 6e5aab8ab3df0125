#include "emulator/store/journal.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <boost/crc.hpp>
#include <fcntl.h>
#include <unistd.h>

#include "base/files.h"

namespace emulator {
namespace {

std::runtime_error FileError(const std::string& doing, const std::filesystem::path& file) {
  return std::runtime_error("cannot " + doing + " " + file.string() + ": " +
                            std::generic_category().message(errno));
}

std::string Checksum(std::string_view record) {
  boost::crc_32_type crc;
  crc.process_bytes(record.data(), record.size());
  std::array<char, 9> hex{};
  std::snprintf(hex.data(), hex.size(), "%08x", static_cast<unsigned>(crc.checksum()));
  return hex.data();
}

/// "0a1b2c3d record"
std::string ToLine(std::string_view record) {
  return Checksum(record).append(" ").append(record).append("\n");
}

std::optional<std::string_view> FromLine(std::string_view line) {
  const auto blank = line.find(' ');
  if (blank == std::string_view::npos) return std::nullopt;
  const std::string_view record = line.substr(blank + 1);
  return line.substr(0, blank) == Checksum(record) ? std::optional(record) : std::nullopt;
}

}  // namespace

Journal::Journal(std::filesystem::path file) : file_(std::move(file)) {
  Open();
  Read();
}

void Journal::Open() {
  fd_ = base::UniqueFd(::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  if (!fd_) throw FileError("open", file_);
}

void Journal::Read() {
  const std::string text = base::ReadToEnd(fd_.get(), std::numeric_limits<std::size_t>::max());
  std::string_view rest = text;
  while (!rest.empty()) {
    const auto end = rest.find('\n');
    const auto record =
        end == std::string_view::npos ? std::nullopt : FromLine(rest.substr(0, end));
    if (!record) {
      // Appending stops at the end of the file: damage with records behind it has another cause.
      if (end != std::string_view::npos && end + 1 != rest.size()) {
        throw std::runtime_error(file_.string() + " is damaged at byte " + std::to_string(size_));
      }
      break;
    }
    records_.emplace_back(*record);
    size_ += end + 1;
    rest.remove_prefix(end + 1);
  }
  if (::ftruncate(fd_.get(), static_cast<off_t>(size_)) != 0) throw FileError("cut", file_);
}

void Journal::Append(std::string_view record) {
  const std::string line = ToLine(record);
  if (!base::WriteAllAt(fd_.get(), static_cast<std::int64_t>(size_), line)) {
    const auto error = FileError("write", file_);
    // What was written of it would be damage before the next record.
    [[maybe_unused]] const int ignored = ::ftruncate(fd_.get(), static_cast<off_t>(size_));
    throw error;
  }
  size_ += line.size();
}

void Journal::Replace(std::string_view record) {
  const std::string line = ToLine(record);
  base::ReplaceFile(file_, line, 0600);
  Open();
  size_ = line.size();
}

}  // namespace emulator
