// The file that a collector writes: whole entries or nothing.
#pragma once

#include <cstdio>
#include <functional>
#include <string>

namespace Tavi::PipelineCollect {

/// A buffered stream that never keeps half an entry: each one is flushed, and one that does not fit (a full disk) is
/// cut off again. Every failure is logged once, with the file's name. Closes at destruction. Thread-bound.
class CollectFile {
 public:
  explicit CollectFile(const std::string& path);
  ~CollectFile();

  [[nodiscard]] bool IsOpen() const { return m_stream != nullptr; }
  /// Runs `write` on the stream and flushes; false, with the file as it was before, when either fails.
  bool Append(const std::function<bool(FILE*)>& write);
  /// Flushes, syncs to the disk when asked, and closes; false when something of it failed.
  bool Close(bool sync);

  CollectFile(const CollectFile&) = delete;
  CollectFile& operator=(const CollectFile&) = delete;

 private:
  void CutOff();
  void LogFailure(const char* action) const;

  const std::string m_path;
  FILE* m_stream;
  /// Size of the file behind the last whole entry.
  long long m_whole = 0;
};

}  // namespace Tavi::PipelineCollect
