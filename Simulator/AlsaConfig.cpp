// The ALSA configuration whose default device is the simulated microphone.
#include "Simulator/AlsaConfig.h"

#include <stdlib.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>

namespace Tavi::Simulator {
namespace {

namespace fs = std::filesystem;

constexpr const char* SystemConfig = "/usr/share/alsa/alsa.conf";

std::string Quote(const std::string& text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (character == '"' || character == '\\') quoted += '\\';
    quoted += character;
  }
  return quoted + '"';
}

std::string BuildText(const std::string& modulePath, const std::string& pulledPath) {
  std::error_code ignored;
  std::string text;
  if (fs::exists(SystemConfig, ignored)) {
    // The hooks load the machine's and the user's own files after this one, and with them another default device.
    text.append("<").append(SystemConfig).append(">\n!@hooks []\n");
  }
  text += "pcm_type.tavi_sim.lib " + Quote(modulePath) + "\n";
  text += "ctl_type.tavi_sim.lib " + Quote(modulePath) + "\n";
  text += "pcm.!default { type tavi_sim pulled " + Quote(pulledPath) + " }\n";
  text += "ctl.!default { type tavi_sim }\n";
  return text;
}

/// False with errno set.
bool WriteText(const std::string& path, const std::string& text) {
  FILE* const file = std::fopen(path.c_str(), "we");
  if (file == nullptr) return false;
  const bool isWritten = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  return std::fclose(file) == 0 && isWritten;
}

}  // namespace

AlsaConfig::AlsaConfig(const std::string& modulePath) {
  std::error_code error;
  const fs::path directory = fs::temp_directory_path(error);
  std::string pattern = ((error ? fs::path("/tmp") : directory) / "tavi-alsa-XXXXXX").string();
  if (mkdtemp(pattern.data()) != nullptr) {
    m_directory = pattern;
    m_path = m_directory + "/alsa.conf";
    if (WriteText(m_path, BuildText(modulePath, GetPulledPath()))) return;
  }
  m_problem = "cannot write the configuration of the simulated microphone to " + pattern + ": " + std::strerror(errno);
  m_path.clear();
}

void AlsaConfig::SetCardThere(bool isThere) const {
  std::error_code ignored;
  if (isThere) {
    fs::remove(GetPulledPath(), ignored);
  } else {
    WriteText(GetPulledPath(), "");
  }
}

AlsaConfig::~AlsaConfig() {
  std::error_code ignored;
  if (!m_directory.empty()) fs::remove_all(m_directory, ignored);
}

}  // namespace Tavi::Simulator
