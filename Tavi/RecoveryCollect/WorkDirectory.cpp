// Where a product is made before it gets its name.
#include "Tavi/RecoveryCollect/WorkDirectory.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <filesystem>
#include <system_error>

#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"

namespace Tavi::RecoveryCollect {
namespace {

using Ksystem::FileUtils::AsideFile;
using Ksystem::FileUtils::Kfile;
using Ksystem::FileUtils::UniqueFd;

constexpr const char* DirectoryName = ".recovery";
constexpr const char* Video = "video.h264";
constexpr const char* Product = "video.mp4";
constexpr const char* Audio = "audio.mp3";
constexpr const char* VideoTimes = "video.h264.times";
constexpr const char* AudioTimes = "audio.mp3.times";
constexpr const char* Aside = "moved";
/// All that is ever made here, by this program's hand; each may be half.
constexpr std::array Names{Video, Product, Audio, VideoTimes, AudioTimes, Aside};

bool Link(const std::string& source, const std::string& alias) {
  std::error_code error;
  const auto target = std::filesystem::absolute(source, error);
  if (!Kfile(alias).Remove()) return false;
  if (!error && ::symlink(target.c_str(), alias.c_str()) == 0) return true;
  return Kfile(source).CopyTo(alias, false);
}

}  // namespace

WorkDirectory::WorkDirectory(const std::string& outputDir) : m_path(outputDir + DirectoryName) {
  if (!Ksystem::FileUtils::Kdir(m_path).Create()) return;
  m_directory = UniqueFd::Open(m_path, O_RDONLY | O_DIRECTORY);
  if (!m_directory.IsValid()) {
    Ksystem::FileUtils::LogFailure("open the directory", m_path);
  } else if (!Clear()) {
    m_directory.Close();
  }
}

WorkDirectory::~WorkDirectory() {
  // Something of somebody else's in it keeps it: no failure.
  if (IsValid() && Clear()) ::rmdir(m_path.c_str());
}

bool WorkDirectory::IsLeftIn(const std::string& outputDir) {
  return ::access((outputDir + DirectoryName).c_str(), F_OK) == 0;
}

bool WorkDirectory::Clear() const {
  bool cleared = true;
  for (const char* name : Names) {
    const std::string path = GetPath(name);
    for (const auto& left : {path, AsideFile::GetAsidePathOf(path)}) cleared = Kfile(left).Remove() && cleared;
  }
  return cleared;
}

bool WorkDirectory::LinkVideo(const std::string& source) const {
  return Link(source, GetVideoPath());
}

bool WorkDirectory::LinkAudio(const std::string& source) const {
  return Link(source, GetAudioPath());
}

void WorkDirectory::LinkVideoTimes(const std::string& source) const {
  static_cast<void>(Link(source, GetPath(VideoTimes)));
}

void WorkDirectory::LinkAudioTimes(const std::string& source) const {
  static_cast<void>(Link(source, GetPath(AudioTimes)));
}

std::string WorkDirectory::GetVideoPath() const {
  return GetPath(Video);
}

std::string WorkDirectory::GetAudioPath() const {
  return GetPath(Audio);
}

std::string WorkDirectory::GetAsidePath() const {
  return GetPath(Aside);
}

std::string WorkDirectory::GetPath(const char* name) const {
  // proc(5): the kernel's own name of an open directory.
  return "/proc/self/fd/" + std::to_string(m_directory.Get()) + "/" + name;
}

}  // namespace Tavi::RecoveryCollect
