// The settings' file: reading and writing it.
#include "Recorder/Settings/Settings.h"

#include <utility>

#include "Recorder/Settings/Fields.h"
#include "SettingsFile/SettingsFile.h"

namespace Tavi::Recorder {

Pipeline::PipelineConfig RestartingPipeline() {
  Pipeline::PipelineConfig config;
  config.restartAfterSeconds = 10;
  config.keepGoing = true;
  config.restartUnitAfterMinutes = 60;
  config.audio.optional = config.acc.optional = true;
  return config;
}

bool LoadSettings(const std::string& path, Settings& settings, std::string& problem) {
  Settings loaded;
  if (!SettingsFile::LoadFields(path, DescribeFields(loaded), problem)) return false;
  settings = std::move(loaded);
  return true;
}

std::string FormatSettings(const Settings& settings) {
  Settings copy = settings;
  return SettingsFile::FormatFields(DescribeFields(copy));
}

std::string FormatFieldTable() {
  Settings defaults;
  return SettingsFile::FormatFieldTable(DescribeFields(defaults));
}

}  // namespace Tavi::Recorder
