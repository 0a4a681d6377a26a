// Whether the configured devices are there.
#include "Recorder/InputDevices.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Kdevice/GpsDevice/GpsDevice.h"

namespace Tavi::Recorder {
namespace {

/// What is wrong with the device, empty when it captures video (V4L2 API, querying capabilities).
std::string DescribeProblem(const std::string& device) {
  if (device.rfind("sim:", 0) == 0) return {};
  const int descriptor = open(device.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0)
    return errno == ENOENT ? "is missing" : fmt::format("cannot be opened ({})", std::strerror(errno));
  v4l2_capability capability{};
  const bool answers = ioctl(descriptor, VIDIOC_QUERYCAP, &capability) == 0;
  close(descriptor);
  const auto flags =
      (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps : capability.capabilities;
  return answers && (flags & V4L2_CAP_VIDEO_CAPTURE) != 0 ? "" : "is no video capture device";
}

/// One sentence about the cameras; empty when all are there.
std::string DescribeMissingCameras(const Pipeline::PipelineConfig& config, const DeviceHints& hints) {
  std::vector<std::string> problems;
  const auto check = [&problems](bool enabled, const char* camera, const std::string& device) {
    const std::string problem = enabled ? DescribeProblem(device) : std::string();
    if (!problem.empty()) problems.push_back(fmt::format("{} of {} {}", device, camera, problem));
  };
  check(config.camera0Enabled, "camera0", config.camera0.device);
  check(config.camera1Enabled, "camera1", config.camera1.device);
  if (problems.empty()) return {};
  return fmt::format("the video device {}: connect it, choose another with {}, or use --simulate",
                     fmt::join(problems, ", and "), hints.camera);
}

/// The same about the receiver, whose silence would restart the unit.
std::string DescribeMissingReceiver(const Pipeline::PipelineConfig& config, const DeviceHints& hints) {
  const std::string path = config.gps.path.empty() ? Kdevice::GpsDevice::GpsDevice::DefaultPath : config.gps.path;
  if (!config.gpsEnabled || access(path.c_str(), R_OK) == 0) return {};
  return fmt::format("the GPS receiver {} {}: connect it, choose another with {}, or leave it out with {}", path,
                     errno == ENOENT ? "is missing" : fmt::format("cannot be read ({})", std::strerror(errno)),
                     hints.receiver, hints.noReceiver);
}

}  // namespace

std::string DescribeMissingDevices(const Pipeline::PipelineConfig& config, bool simulated, const DeviceHints& hints) {
  const std::string cameras = simulated ? std::string() : DescribeMissingCameras(config, hints);
  return !cameras.empty() ? cameras : DescribeMissingReceiver(config, hints);
}

}  // namespace Tavi::Recorder
