// A file's bytes without copying them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace KMedia {

/// A read-only mapping of a whole file. Thread-bound. The file must not shrink meanwhile: an event's files are written
/// by their collector only, which has ended.
class MappedFile {
 public:
  MappedFile() = default;
  ~MappedFile();
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  /// False, with errno set, when the file cannot be opened or mapped. An empty file is mapped to no bytes.
  bool Map(const std::string& path);
  [[nodiscard]] std::span<const std::uint8_t> GetBytes() const { return m_bytes; }

 private:
  std::span<const std::uint8_t> m_bytes;
};

}  // namespace KMedia
