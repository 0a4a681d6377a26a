// A file's bytes without copying them.
#include "KMedia/FFMpeg/MappedFile.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace KMedia {

MappedFile::~MappedFile() {
  if (!m_bytes.empty()) ::munmap(const_cast<std::uint8_t*>(m_bytes.data()), m_bytes.size());
}

bool MappedFile::Map(const std::string& path) {
  const auto file = Ksystem::FileUtils::UniqueFd::Open(path, O_RDONLY);
  struct stat attributes {};
  if (!file.IsValid() || ::fstat(file.Get(), &attributes) != 0) return false;
  const auto size = static_cast<std::size_t>(attributes.st_size);
  if (size == 0) return true;
  void* start = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file.Get(), 0);
  if (start == MAP_FAILED) return false;
  m_bytes = {static_cast<const std::uint8_t*>(start), size};
  return true;
}

}  // namespace KMedia
