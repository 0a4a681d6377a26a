// Whether the configured devices are there.
#include "Recorder/InputDevices.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <linux/videodev2.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>
#include <vector>

#include "Kdevice/GpsDevice/GpsDevice.h"
#include "Ksystem/FileUtils/UniqueFd.h"

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
  if (!config.gpsEnabled || Kdevice::GpsDevice::Receiver::IsGpsd(path) || access(path.c_str(), R_OK) == 0) return {};
  return fmt::format("the GPS receiver {} {}: connect it, choose another with {}, or leave it out with {}", path,
                     errno == ENOENT ? "is missing" : fmt::format("cannot be read ({})", std::strerror(errno)),
                     hints.receiver, hints.noReceiver);
}

/// Why nobody could listen there; empty when one could.
std::string DescribePort(std::int32_t port) {
  const Ksystem::FileUtils::UniqueFd probe(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  const int reuse = 1;
  setsockopt(probe.Get(), SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof(reuse));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  const bool isFree = bind(probe.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 &&
                      listen(probe.Get(), 1) == 0;
  return isFree ? std::string() : std::strerror(errno);
}

/// One sentence about the live streams, whose failure would take all of the acquisition along.
std::string DescribeBusyPorts(const Pipeline::PipelineConfig& config, const DeviceHints& hints) {
  for (const auto& [isEnabled, camera] :
       {std::pair(config.camera0Enabled, &config.camera0), {config.camera1Enabled, &config.camera1}}) {
    const std::string problem = isEnabled && camera->streamEnabled ? DescribePort(camera->streamPort) : std::string();
    if (problem.empty()) continue;
    return fmt::format("the port {} of a live stream cannot be had ({}): choose another with {}", camera->streamPort,
                       problem, hints.port);
  }
  return {};
}

}  // namespace

std::string DescribeMissingDevices(const Pipeline::PipelineConfig& config, bool simulated, const DeviceHints& hints) {
  std::string cameras = simulated ? std::string() : DescribeMissingCameras(config, hints);
  if (!cameras.empty()) return cameras;
  const std::string receiver = DescribeMissingReceiver(config, hints);
  return !receiver.empty() ? receiver : DescribeBusyPorts(config, hints);
}

}  // namespace Tavi::Recorder
