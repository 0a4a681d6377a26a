// Where GStreamer finds the software elements that came with this program.
#include "Recorder/PluginPath.h"

#include <cstdlib>
#include <filesystem>
#include <string>

namespace Tavi::Recorder {

void AddPluginPath() {
  std::error_code error;
  const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return;
  const auto directory = program.parent_path().parent_path() / "lib" / "gstreamer-1.0";
  if (!std::filesystem::is_directory(directory, error)) return;
  const char* present = std::getenv("GST_PLUGIN_PATH");
  const std::string path =
      present != nullptr && *present != '\0' ? directory.string() + ":" + present : directory.string();
  setenv("GST_PLUGIN_PATH", path.c_str(), 1);
}

}  // namespace Tavi::Recorder
