// A file's bytes.
#include "KMedia/FFMpeg/FileBytes.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

#include "Ksystem/FileUtils/UniqueFd.h"

namespace KMedia {
namespace {

bool LiesInMemory(int file) {
  struct statfs system {};
  if (::fstatfs(file, &system) != 0) return false;
  // Signed on some machines, where one of these numbers is negative.
  const auto type = static_cast<std::uint32_t>(system.f_type);
  return type == TMPFS_MAGIC || type == RAMFS_MAGIC;
}

}  // namespace

FileBytes::~FileBytes() {
  if (m_mapped != nullptr) ::munmap(m_mapped, m_bytes.size());
}

bool FileBytes::Load(const std::string& path) {
  const auto file = Ksystem::FileUtils::UniqueFd::Open(path, O_RDONLY);
  struct stat attributes {};
  if (!file.IsValid() || ::fstat(file.Get(), &attributes) != 0) return false;
  const auto size = static_cast<std::size_t>(attributes.st_size);
  if (size == 0) return true;
  return LiesInMemory(file.Get()) ? Map(file.Get(), size) : Read(file.Get(), size);
}

bool FileBytes::Map(int file, std::size_t size) {
  void* start = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE | MAP_POPULATE, file, 0);
  if (start == MAP_FAILED) return false;
  m_mapped = start;
  m_bytes = {static_cast<const std::uint8_t*>(start), size};
  return true;
}

bool FileBytes::Read(int file, std::size_t size) {
  m_read.resize(size);
  std::size_t done = 0;
  while (done < size) {
    const ssize_t got = ::read(file, m_read.data() + done, size - done);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return false;
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  m_bytes = std::span(m_read).first(done);
  return true;
}

}  // namespace KMedia
