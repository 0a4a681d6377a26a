// A file that takes its name when it is whole.
#include "Ksystem/FileUtils/AsideFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <utility>

#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/Kdir.h"

namespace Ksystem::FileUtils {

AsideFile::AsideFile(std::string path) : m_path(std::move(path)), m_aside(GetAsidePathOf(m_path)) {}

AsideFile::~AsideFile() {
  if (m_isHalf) ::unlink(m_aside.c_str());
}

bool AsideFile::Open() {
  m_file = UniqueFd::Open(m_aside, O_WRONLY | O_CREAT | O_TRUNC);
  return m_file.IsValid();
}

/// One who wrote by the name has closed the file; any descriptor of it brings all of it onto the disk.
bool AsideFile::SyncContent() {
  if (!m_file.IsValid()) m_file = UniqueFd::Open(m_aside, O_RDONLY);
  return m_file.IsValid() && ::fsync(m_file.Get()) == 0 && m_file.Close();
}

bool AsideFile::Commit() {
  if (!SyncContent() || std::rename(m_aside.c_str(), m_path.c_str()) != 0) return false;
  m_isHalf = false;
  return Kdir::TrySync(Kdir::GetParentOf(m_path));
}

void AsideFile::Keep() {
  struct stat attributes {};
  if (::stat(m_aside.c_str(), &attributes) != 0 || attributes.st_size == 0) return;
  if (!SyncContent()) LogFailure("sync", m_aside);
  m_isHalf = !Kdir::SyncParentOf(m_aside);
}

}  // namespace Ksystem::FileUtils
