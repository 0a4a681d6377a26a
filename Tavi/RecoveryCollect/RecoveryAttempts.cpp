// How often the files of interrupted events have failed.
#include "Tavi/RecoveryCollect/RecoveryAttempts.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <utility>

#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/Failure.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Ksystem/FileUtils/UniqueFd.h"

namespace Tavi::RecoveryCollect {
namespace {

using Ksystem::FileUtils::AsideFile;

constexpr const char* FileName = ".attempts";
constexpr int MostFailures = 2;
constexpr int MostDeaths = 5;

}  // namespace

RecoveryAttempts::RecoveryAttempts(std::string restoreDir)
    : m_restoreDir(std::move(restoreDir)), m_path(m_restoreDir + FileName) {
  Read();
  // Of a run that was interrupted.
  Ksystem::FileUtils::Kfile(AsideFile::GetAsidePathOf(m_path)).Remove();
  if (m_counts.empty()) Ksystem::FileUtils::Kfile(m_path).Remove();
}

bool RecoveryAttempts::IsOwnFile(const std::string& name) {
  return name == FileName || name == AsideFile::GetAsidePathOf(FileName);
}

bool RecoveryAttempts::IsGivenUp(const std::string& name) const {
  const auto found = m_counts.find(name);
  return found != m_counts.end() && (found->second.failed >= MostFailures || found->second.died >= MostDeaths);
}

void RecoveryAttempts::Begin(const std::string& name) {
  ++m_counts[name].died;
  Write();
}

void RecoveryAttempts::End(const std::string& name, Result result) {
  Count& count = m_counts[name];
  if (count.died > 0) --count.died;
  if (result == Result::Failed) ++count.failed;
  if (result == Result::Done || (count.failed == 0 && count.died == 0)) m_counts.erase(name);
  Write();
}

/// One line a file: failures, deaths, name. What cannot be read counts for nothing.
void RecoveryAttempts::Read() {
  std::ifstream file(m_path);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    Count count;
    std::string name;
    if (!(words >> count.failed >> count.died >> std::ws) || !std::getline(words, name)) continue;
    if (::access((m_restoreDir + name).c_str(), F_OK) == 0) m_counts[name] = count;
  }
}

void RecoveryAttempts::Write() const {
  if (m_counts.empty()) {
    Ksystem::FileUtils::Kfile(m_path).Remove();
    return;
  }
  std::string text;
  for (const auto& [name, count] : m_counts) {
    text += std::to_string(count.failed) + " " + std::to_string(count.died) + " " + name + "\n";
  }
  AsideFile file(m_path);
  const bool written =
      file.Open() && Ksystem::FileUtils::WriteAll(file.GetFd(), text.data(), text.size()) && file.Commit();
  if (!written) Ksystem::FileUtils::LogFailure("write", m_path);
}

}  // namespace Tavi::RecoveryCollect
