// The file that a collector writes: whole entries or nothing.
#include "Tavi/PipelineCollect/CollectFile.h"

#include <fcntl.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "Tavi/GstUtil/Log.h"

namespace Tavi::PipelineCollect {

CollectFile::CollectFile(const std::string& path) : m_path(path), m_stream(std::fopen(path.c_str(), "wbe")) {
  if (m_stream == nullptr) LogFailure("open");
}

CollectFile::~CollectFile() {
  Close(false);
}

void CollectFile::LogFailure(const char* action) const {
  Log::Error(std::string("cannot ") + action + " " + m_path + ": " + std::strerror(errno));
}

bool CollectFile::Append(const std::function<bool(FILE*)>& write) {
  if (m_stream == nullptr) return false;
  errno = 0;
  const bool written = write(m_stream);
  if (written && std::fflush(m_stream) == 0) {
    m_whole = ::ftello(m_stream);
    return true;
  }
  // Without an error on the stream the writer itself has refused the entry, which is no failure of the file.
  if (std::ferror(m_stream) != 0) LogFailure("write");
  CutOff();
  return false;
}

void CollectFile::CutOff() {
  __fpurge(m_stream);
  std::clearerr(m_stream);
  if (::ftruncate(::fileno(m_stream), m_whole) != 0) LogFailure("cut off the half entry of");
  if (::fseeko(m_stream, m_whole, SEEK_SET) != 0) LogFailure("seek in");
}

bool CollectFile::Close(bool sync) {
  if (m_stream == nullptr) return true;
  bool good = std::fflush(m_stream) == 0;
  if (!good) LogFailure("write");
  if (sync && ::fsync(::fileno(m_stream)) != 0) {
    LogFailure("sync");
    good = false;
  }
  if (std::fclose(std::exchange(m_stream, nullptr)) != 0) {
    LogFailure("close");
    good = false;
  }
  return good;
}

}  // namespace Tavi::PipelineCollect
