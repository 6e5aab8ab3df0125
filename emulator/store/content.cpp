#include "emulator/store/content.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include "base/files.h"
#include "base/unique_fd.h"
#include "emulator/store/quick_xor_hash.h"
#include "emulator/text/random_text.h"

namespace emulator {
namespace {

constexpr std::size_t kBlockSize = std::size_t{1} << 20U;

std::runtime_error FileError(const std::string& doing, const std::filesystem::path& path) {
  return std::runtime_error("cannot " + doing + " " + path.string() + ": " +
                            std::generic_category().message(errno));
}

base::UniqueFd Open(const std::filesystem::path& path, int flags) {
  base::UniqueFd file(::open(path.c_str(), flags | O_CLOEXEC, 0600));
  if (!file) throw FileError("open", path);
  return file;
}

/// Bytes in blocks, so that a growing upload is never copied into a larger piece of memory.
class MemoryContent : public Content {
 public:
  MemoryContent(std::vector<std::vector<char>> blocks, std::uint64_t size, std::string hash)
      : blocks_(std::move(blocks)), size_(size), hash_(std::move(hash)) {}

  std::uint64_t Size() const override { return size_; }
  std::string Hash() const override { return hash_; }

  void Read(std::uint64_t offset, std::span<char> into) const override {
    while (!into.empty()) {
      const auto& block = blocks_.at(offset / kBlockSize);
      const std::size_t start = offset % kBlockSize;
      const std::size_t count = std::min(into.size(), block.size() - start);
      std::copy_n(block.data() + start, count, into.data());
      into = into.subspan(count);
      offset += count;
    }
  }

 private:
  std::vector<std::vector<char>> blocks_;
  std::uint64_t size_;
  std::string hash_;
};

class MemoryWriter : public ContentWriter {
 public:
  void Append(std::span<const char> bytes) override {
    hash_.Add(bytes);
    while (!bytes.empty()) {
      if (size_ % kBlockSize == 0) blocks_.emplace_back();
      auto& block = blocks_.back();
      // Small files stay small; in a large one every further block will be filled.
      if (blocks_.size() > 1) block.reserve(kBlockSize);
      const std::size_t count = std::min(bytes.size(), kBlockSize - block.size());
      block.insert(block.end(), bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(count));
      bytes = bytes.subspan(count);
      size_ += count;
    }
  }

  std::uint64_t Size() const override { return size_; }

  void Mark() override {
    marked_hash_ = hash_;
    marked_size_ = size_;
  }

  void RollBack() override {
    hash_ = marked_hash_;
    size_ = marked_size_;
    blocks_.resize((size_ + kBlockSize - 1) / kBlockSize);
    if (size_ % kBlockSize != 0) blocks_.back().resize(size_ % kBlockSize);
  }

  ContentPtr Finish() override {
    // The last block may have been reserved whole, for a few bytes.
    if (!blocks_.empty()) blocks_.back().shrink_to_fit();
    return std::make_shared<MemoryContent>(std::move(blocks_), size_, hash_.Base64());
  }

 private:
  std::vector<std::vector<char>> blocks_;
  std::uint64_t size_ = 0;
  std::uint64_t marked_size_ = 0;
  QuickXorHash hash_;
  QuickXorHash marked_hash_;
};

/// Opens its file for each read: thousands of items must not hold thousands of descriptors.
class FileContent : public Content {
 public:
  FileContent(std::filesystem::path path, std::uint64_t size, std::string hash)
      : path_(std::move(path)), size_(size), hash_(std::move(hash)) {}
  ~FileContent() override {
    std::error_code ignored;
    if (abandoned_) std::filesystem::remove(path_, ignored);
  }
  FileContent(const FileContent&) = delete;
  FileContent& operator=(const FileContent&) = delete;

  std::uint64_t Size() const override { return size_; }
  std::string Hash() const override { return hash_; }
  std::string FileName() const override { return path_.filename().string(); }
  void Abandon() const override { abandoned_ = true; }

  void Read(std::uint64_t offset, std::span<char> into) const override {
    const base::UniqueFd file = Open(path_, O_RDONLY);
    while (!into.empty()) {
      const ssize_t count =
          ::pread(file.get(), into.data(), into.size(), static_cast<off_t>(offset));
      if (count < 0 && errno == EINTR) continue;
      if (count < 0) throw FileError("read", path_);
      if (count == 0) throw std::runtime_error(path_.string() + " is shorter than it was");
      into = into.subspan(static_cast<std::size_t>(count));
      offset += static_cast<std::uint64_t>(count);
    }
  }

 private:
  std::filesystem::path path_;
  std::uint64_t size_;
  std::string hash_;
  mutable std::atomic<bool> abandoned_{false};
};

class FileWriter : public ContentWriter {
 public:
  explicit FileWriter(std::filesystem::path path)
      : path_(std::move(path)), file_(Open(path_, O_WRONLY | O_CREAT | O_EXCL)) {}
  ~FileWriter() override {
    std::error_code ignored;
    if (!finished_) std::filesystem::remove(path_, ignored);
  }
  FileWriter(const FileWriter&) = delete;
  FileWriter& operator=(const FileWriter&) = delete;

  void Append(std::span<const char> bytes) override {
    hash_.Add(bytes);
    if (!base::WriteAllAt(file_.get(), static_cast<std::int64_t>(size_),
                          {bytes.data(), bytes.size()})) {
      throw FileError("write", path_);
    }
    size_ += bytes.size();
  }

  std::uint64_t Size() const override { return size_; }

  void Mark() override {
    marked_hash_ = hash_;
    marked_size_ = size_;
  }

  void RollBack() override {
    hash_ = marked_hash_;
    size_ = marked_size_;
    if (::ftruncate(file_.get(), static_cast<off_t>(size_)) != 0) throw FileError("cut", path_);
  }

  ContentPtr Finish() override {
    finished_ = true;
    return std::make_shared<FileContent>(path_, size_, hash_.Base64());
  }

 private:
  std::filesystem::path path_;
  base::UniqueFd file_;
  bool finished_ = false;
  std::uint64_t size_ = 0;
  std::uint64_t marked_size_ = 0;
  QuickXorHash hash_;
  QuickXorHash marked_hash_;
};

class GeneratedBytes : public Content {
 public:
  GeneratedBytes(std::uint64_t size, ByteGenerator generate)
      : size_(size), generate_(std::move(generate)) {}
  std::uint64_t Size() const override { return size_; }
  void Read(std::uint64_t offset, std::span<char> into) const override { generate_(offset, into); }

 private:
  std::uint64_t size_;
  ByteGenerator generate_;
};

/// One step of splitmix64: neighbouring inputs give unrelated words.
std::uint64_t Mix(std::uint64_t word) {
  word += 0x9E3779B97F4A7C15U;
  word = (word ^ (word >> 30U)) * 0xBF58476D1CE4E5B9U;
  word = (word ^ (word >> 27U)) * 0x94D049BB133111EBU;
  return word ^ (word >> 31U);
}

void FillPattern(std::uint64_t seed, std::uint64_t offset, std::span<char> into) {
  while (!into.empty()) {
    const std::uint64_t word = Mix(Mix(seed) + offset / sizeof(std::uint64_t));
    const std::size_t skip = offset % sizeof word;
    const std::size_t count = std::min(into.size(), sizeof word - skip);
    std::memcpy(into.data(), reinterpret_cast<const char*>(&word) + skip, count);
    into = into.subspan(count);
    offset += count;
  }
}

void Copy(const Content& from, ContentWriter& to) {
  std::vector<char> buffer(std::min<std::uint64_t>(from.Size(), kBlockSize));
  for (std::uint64_t done = 0; done < from.Size(); done += buffer.size()) {
    const auto count = std::min<std::uint64_t>(buffer.size(), from.Size() - done);
    const auto piece = std::span<char>(buffer).first(static_cast<std::size_t>(count));
    from.Read(done, piece);
    to.Append(piece);
  }
}

}  // namespace

ContentPtr TextContent(std::string_view bytes) {
  MemoryWriter writer;
  writer.Append(bytes);
  return writer.Finish();
}

ContentPtr GeneratedContent(std::uint64_t size, ByteGenerator generate) {
  return std::make_shared<GeneratedBytes>(size, std::move(generate));
}

ContentPtr PatternContent(std::uint64_t size, std::uint64_t seed) {
  return GeneratedContent(size, [seed](std::uint64_t offset, std::span<char> into) {
    FillPattern(seed, offset, into);
  });
}

ContentPtr ExtendedContent(ContentPtr base, std::string more) {
  const std::uint64_t base_size = base->Size();
  const std::uint64_t size = base_size + more.size();
  return GeneratedContent(size, [base = std::move(base), base_size, more = std::move(more)](
                                    std::uint64_t offset, std::span<char> into) {
    if (offset < base_size) {
      const auto count = std::min<std::uint64_t>(into.size(), base_size - offset);
      base->Read(offset, into.first(static_cast<std::size_t>(count)));
      into = into.subspan(static_cast<std::size_t>(count));
      offset += count;
    }
    if (!into.empty()) std::copy_n(more.data() + (offset - base_size), into.size(), into.data());
  });
}

std::string ReadAll(const Content& content) {
  std::string bytes(static_cast<std::size_t>(content.Size()), '\0');
  content.Read(0, bytes);
  return bytes;
}

ContentStore::ContentStore(std::filesystem::path directory) : directory_(std::move(directory)) {
  if (!directory_.empty()) std::filesystem::create_directories(directory_);
}

std::unique_ptr<ContentWriter> ContentStore::NewWriter() const {
  if (directory_.empty()) return std::make_unique<MemoryWriter>();
  return std::make_unique<FileWriter>(directory_ / RandomGuid());
}

ContentPtr ContentStore::Keep(const ContentPtr& content) const {
  if (directory_.empty() || !content->FileName().empty()) return content;
  const auto writer = NewWriter();
  Copy(*content, *writer);
  return writer->Finish();
}

ContentPtr ContentStore::Reopen(const std::string& file_name, std::string hash) const {
  // Only the name counts: an index that was tampered with must not reach outside the folder.
  const auto path = directory_ / std::filesystem::path(file_name).filename();
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  if (error) throw std::runtime_error("cannot find " + path.string() + ": " + error.message());
  return std::make_shared<FileContent>(path, size, std::move(hash));
}

}  // namespace emulator
