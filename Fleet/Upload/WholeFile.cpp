// A small file that is there whole or as it was.
#include "Fleet/Upload/WholeFile.h"

#include <sys/stat.h>

#include "EventStore/Storage.h"
#include "Ksystem/FileUtils/AsideFile.h"

namespace Tavi::Upload {

bool WriteWholeFile(const std::string& path, std::string_view text, mode_t mode, std::string& problem) {
  Ksystem::FileUtils::AsideFile file(path);
  const bool isWritten = file.Open() && ::fchmod(file.GetFd(), mode) == 0 &&
                         Ksystem::FileUtils::WriteAll(file.GetFd(), text.data(), text.size()) && file.Commit();
  return isWritten || EventStore::Fail("write", path, problem);
}

}  // namespace Tavi::Upload
