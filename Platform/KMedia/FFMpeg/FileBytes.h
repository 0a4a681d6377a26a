// A file's bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace KMedia {

/// The content of a whole file: mapped where it lies in memory, which costs no copy, and read where it lies on a disk,
/// because a sector that cannot be read is an error to who reads it and the end of a process that has it mapped.
/// Thread-bound. The file must not shrink meanwhile: an event's files are written by their collector only, which has
/// ended.
class FileBytes {
 public:
  FileBytes() = default;
  ~FileBytes();
  FileBytes(const FileBytes&) = delete;
  FileBytes& operator=(const FileBytes&) = delete;

  /// False, with errno set, when the file cannot be opened or read. An empty file has no bytes. Once.
  [[nodiscard]] bool Load(const std::string& path);
  [[nodiscard]] std::span<const std::uint8_t> Get() const { return m_bytes; }

 private:
  bool Map(int file, std::size_t size);
  bool Read(int file, std::size_t size);

  std::vector<std::uint8_t> m_read;
  /// Null unless mapped.
  void* m_mapped = nullptr;
  std::span<const std::uint8_t> m_bytes;
};

}  // namespace KMedia
