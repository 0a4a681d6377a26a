// The directories of the events that are collected, and what a process that died has left in them.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Recorder/Service/WaitingEvent.h"
#include "Recorder/Settings/Settings.h"

namespace Tavi::Recorder {

/// One directory an event on the working disk. Thread-safe; borrows the settings.
class WorkingDisk {
 public:
  explicit WorkingDisk(const StorageSettings& settings) : m_settings(settings) {}

  /// Where the files of that event are collected, with a "/" at its end.
  [[nodiscard]] std::string GetDir(const std::string& id) const { return m_settings.workDir + id + "/"; }
  /// Removes the directory of an event, in one step for whoever looks at it after an interruption.
  static void Remove(const std::string& dir);
  /// True for the name of one whose removal was interrupted.
  [[nodiscard]] static bool IsHalfRemoved(std::string_view name);

  /// Looks through what a process has left: removes the events `known`, adds to `waiting` those that were complete, and
  /// saves all others in the backup directory as if power had failed. One for which there is no room stays.
  void TakeLeft(const std::vector<std::string>& known, std::vector<WaitingEvent>& waiting) const;

 private:
  void SaveLeft(const std::string& id) const;
  bool SaveFile(const std::string& path, const std::string& name) const;

  const StorageSettings& m_settings;
};

}  // namespace Tavi::Recorder
