// The bytes of a file, wherever they live, and the way new bytes come in.
// Threads: a Content is immutable and may be read by any number of threads; a ContentWriter belongs
// to one thread at a time. Lifetime: contents are shared; one that lives in a file stays readable
// for those who still hold it after its item is gone.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace emulator {

class Content {
 public:
  virtual ~Content() = default;

  virtual std::uint64_t Size() const = 0;

  /// Fills `into` with the bytes from `offset` on, all of which must lie inside the content.
  /// Throws std::runtime_error when they cannot be read.
  virtual void Read(std::uint64_t offset, std::span<char> into) const = 0;

  /// The quickXorHash in base64; empty where it is not known.
  virtual std::string Hash() const { return {}; }

  /// Name of the file that holds it in the data directory; empty when it lives in memory.
  virtual std::string FileName() const { return {}; }

  /// No item has it any more: a file behind it goes with the last reader.
  virtual void Abandon() const {}
};

using ContentPtr = std::shared_ptr<const Content>;
using ByteGenerator = std::function<void(std::uint64_t offset, std::span<char> into)>;

ContentPtr TextContent(std::string_view bytes);

/// Bytes made when they are read, for sizes no one wants in memory. `generate` is called from any
/// thread and must give the same bytes each time.
ContentPtr GeneratedContent(std::uint64_t size, ByteGenerator generate);

/// Bytes that look random, every one fixed by `seed` and its offset.
ContentPtr PatternContent(std::uint64_t size, std::uint64_t seed = 1);

/// `base` followed by `more`.
ContentPtr ExtendedContent(ContentPtr base, std::string more);

/// The whole of it; meant for small contents.
std::string ReadAll(const Content& content);

/// Takes the bytes of one upload. What is not finished is discarded with the writer.
class ContentWriter {
 public:
  virtual ~ContentWriter() = default;

  /// Throws std::runtime_error when the bytes cannot be kept.
  virtual void Append(std::span<const char> bytes) = 0;
  virtual std::uint64_t Size() const = 0;

  /// Remembers this place; RollBack forgets all that came after it.
  virtual void Mark() = 0;
  virtual void RollBack() = 0;

  /// The writer is spent afterwards.
  virtual ContentPtr Finish() = 0;
};

/// Where contents are kept: files in a folder, or memory.
class ContentStore {
 public:
  /// Empty: memory. The folder is made if need be; throws std::filesystem::filesystem_error.
  explicit ContentStore(std::filesystem::path directory);

  std::unique_ptr<ContentWriter> NewWriter() const;

  /// What a restart can find again: `content` itself, or a copy of it in this store's folder.
  ContentPtr Keep(const ContentPtr& content) const;

  /// A content kept by an earlier run. Throws std::runtime_error when its file is not there.
  ContentPtr Reopen(const std::string& file_name, std::string hash) const;

  const std::filesystem::path& Directory() const { return directory_; }

 private:
  std::filesystem::path directory_;
};

}  // namespace emulator
