// The ALSA configuration whose default device is the simulated microphone.
#pragma once

#include <string>

namespace Tavi::Simulator {

/// Owns a private directory with a configuration file for the environment variable ALSA_CONFIG_PATH. It includes the
/// system's configuration where there is one, so that other devices keep their names, and then makes the default
/// capture device the plug-in `modulePath`, whatever the system's or the user's files say, and the default mixer that
/// of the same plug-in: the gain of a card that the machine does have is not the simulation's to change.
///
/// Why a plug-in of our own: ALSA's "null" and "file" types answer as fast as they are asked, so that a second of sound
/// takes no time; its "pulse" type needs a sound server; the kernel's loopback card needs a module and root.
class AlsaConfig {
 public:
  /// `modulePath` is absolute: ALSA opens it later, from wherever the program is then.
  explicit AlsaConfig(const std::string& modulePath);
  /// Removes the directory.
  ~AlsaConfig();

  /// The file; empty when it could not be written.
  [[nodiscard]] const std::string& GetPath() const { return m_path; }
  /// What went wrong, in one line; empty when nothing did.
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }

  /// Pulls the card, or plugs it in again: as of a USB card, an open one is gone for good.
  void SetCardThere(bool isThere) const;

  AlsaConfig(const AlsaConfig&) = delete;
  AlsaConfig& operator=(const AlsaConfig&) = delete;

 private:
  /// While there is such a file, the card is not there.
  [[nodiscard]] std::string GetPulledPath() const { return m_directory + "/pulled"; }

  std::string m_directory;
  std::string m_path;
  std::string m_problem;
};

}  // namespace Tavi::Simulator
