// One file: its size, removing and copying it, and writing records to a stream.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

namespace Ksystem::FileUtils {

class AsideFile;

/// Names one file; nothing is opened until an operation is called. Thread-bound; the static writers are reentrant.
class Kfile {
 public:
  /// `quiet`: a file that is missing is an expected outcome of Stat and not logged.
  explicit Kfile(std::string path, bool quiet = false);

  /// Reads the file's attributes. False when there is no such file.
  bool Stat();
  /// Size in bytes as of the last successful Stat, 0 before.
  [[nodiscard]] std::uint64_t GetSize() const { return m_size; }
  /// True when the file is gone afterwards; a missing one is no error.
  bool Remove();

  /// Copies the file to `dest`, synced with its directory: written aside and renamed, so that no half copy ever stands
  /// under that name. `keepExisting`: an existing `dest` stays and the result is false. False also, with one line in
  /// the log that names the file, when the copy failed; `keepHalf` then leaves what fitted, synced, as `dest` +
  /// ".part".
  bool CopyTo(const std::string& dest, bool keepExisting, bool keepHalf = false);

  /// Gives the file at `dest` the times of this one: what was recorded an hour ago does not become an hour younger.
  /// Failure does no harm.
  void CopyTimesTo(const std::string& dest) const;

  /// Writes `size` bytes. False on a null stream or a short write.
  static bool Write(const void* data, std::size_t size, FILE* file);
  /// Writes four bytes, the least significant first, whatever the machine's own order.
  static bool WriteInt(std::int32_t value, FILE* file);
  /// Writes the characters only: no length, no NUL.
  static bool WriteString(const std::string& text, FILE* file);

 private:
  bool CopyContent(AsideFile& to) const;

  const std::string m_path;
  const bool m_quiet;
  std::uint64_t m_size = 0;
};

}  // namespace Ksystem::FileUtils
