// One file: its size, removing and copying it, and writing records to a stream.
#include "Ksystem/FileUtils/Kfile.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>
#include <vector>

#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Ksystem::FileUtils {
namespace {

constexpr std::size_t CopyBlock = std::size_t{1} << 20;

/// Copies what `from` has left through memory. False, with errno set, on failure.
bool ReadAndWriteAll(int from, int to) {
  std::vector<char> block(CopyBlock);
  while (true) {
    const ssize_t got = ::read(from, block.data(), block.size());
    if (got == 0) return true;
    if (got < 0 && errno != EINTR) return false;
    if (got > 0 && !WriteAll(to, block.data(), static_cast<std::size_t>(got))) return false;
  }
}

/// Copies what `from` has, within the kernel where the file systems let it. False, with errno set, on failure.
bool SendAll(int from, int to) {
  while (true) {
    const ssize_t sent = ::sendfile(to, from, nullptr, CopyBlock);
    if (sent == 0) return true;
    if (sent > 0 || errno == EINTR) continue;
    return (errno == EINVAL || errno == ENOSYS) && ReadAndWriteAll(from, to);
  }
}

}  // namespace

Kfile::Kfile(std::string path, bool quiet) : m_path(std::move(path)), m_quiet(quiet) {}

bool Kfile::Stat() {
  struct stat attributes {};
  if (::stat(m_path.c_str(), &attributes) != 0) {
    if (!m_quiet || errno != ENOENT) LogFailure("look at", m_path);
    return false;
  }
  m_size = static_cast<std::uint64_t>(attributes.st_size);
  return true;
}

bool Kfile::Remove() {
  if (::unlink(m_path.c_str()) == 0 || errno == ENOENT) return true;
  LogFailure("remove", m_path);
  return false;
}

bool Kfile::CopyContent(AsideFile& to) const {
  const UniqueFd from = UniqueFd::Open(m_path, O_RDONLY);
  if (!from.IsValid()) {
    LogFailure("open", m_path);
    return false;
  }
  if (to.Open() && SendAll(from.Get(), to.GetFd()) && to.Commit()) return true;
  LogFailure("copy " + m_path + " to", to.GetAsidePath());
  return false;
}

bool Kfile::CopyTo(const std::string& dest, bool keepExisting, bool keepHalf) {
  if (keepExisting && ::access(dest.c_str(), F_OK) == 0) return false;
  AsideFile to(dest);
  if (CopyContent(to)) return true;
  if (keepHalf) to.Keep();
  return false;
}

void Kfile::CopyTimesTo(const std::string& dest) const {
  struct stat attributes {};
  if (::stat(m_path.c_str(), &attributes) != 0) return;
  const std::array<timespec, 2> times{attributes.st_atim, attributes.st_mtim};
  ::utimensat(AT_FDCWD, dest.c_str(), times.data(), 0);
}

bool Kfile::Write(const void* data, std::size_t size, FILE* file) {
  return file != nullptr && (size == 0 || std::fwrite(data, 1, size, file) == size);
}

bool Kfile::WriteInt(std::int32_t value, FILE* file) {
  const auto bits = static_cast<std::uint32_t>(value);
  std::array<unsigned char, sizeof(bits)> bytes{};
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<unsigned char>(bits >> (8 * i));
  return Write(bytes.data(), bytes.size(), file);
}

bool Kfile::WriteString(const std::string& text, FILE* file) {
  return Write(text.data(), text.size(), file);
}

}  // namespace Ksystem::FileUtils
