// Tells when a directory has changed.
#include "Fleet/Mqtt/DirectoryWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>

namespace Tavi::Mqtt {

bool DirectoryWatch::Open(const std::string& directory) {
  m_notifier = Ksystem::FileUtils::UniqueFd(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!m_notifier.IsValid()) return false;
  return ::inotify_add_watch(m_notifier.Get(), directory.c_str(), IN_MOVED_TO | IN_MOVED_FROM | IN_ONLYDIR) >= 0;
}

bool DirectoryWatch::HasChanged() {
  alignas(inotify_event) std::array<char, 4096> news;
  bool hasChanged = false;
  while (m_notifier.IsValid() && ::read(m_notifier.Get(), news.data(), news.size()) > 0) hasChanged = true;
  return hasChanged;
}

}  // namespace Tavi::Mqtt
