// Cameras and their modes (V4L2 API: querying capabilities, enumerating formats, frame sizes and frame intervals).
#include <fcntl.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <functional>

#include "Ksystem/FileUtils/UniqueFd.h"
#include "Recorder/Devices/DeviceList.h"
#include "Recorder/Devices/Nodes.h"

namespace Tavi::Recorder::Devices {
namespace {

using Ksystem::FileUtils::UniqueFd;

std::string ToText(std::uint32_t fourcc) {
  std::string text;
  for (unsigned shift = 0; shift < 32; shift += 8) text += static_cast<char>(fourcc >> shift & 0x7FU);
  while (!text.empty() && text.back() == ' ') text.pop_back();
  return text;
}

double ToRate(const v4l2_fract& interval) {
  return interval.numerator == 0 ? 0.0 : static_cast<double>(interval.denominator) / interval.numerator;
}

std::vector<double> ListRates(int device, std::uint32_t format, std::uint32_t width, std::uint32_t height) {
  std::vector<double> rates;
  v4l2_frmivalenum interval{};
  interval.pixel_format = format;
  interval.width = width;
  interval.height = height;
  for (; ioctl(device, VIDIOC_ENUM_FRAMEINTERVALS, &interval) == 0; ++interval.index) {
    if (interval.type != V4L2_FRMIVAL_TYPE_DISCRETE) {
      rates = {ToRate(interval.stepwise.min), ToRate(interval.stepwise.max)};
      break;
    }
    rates.push_back(ToRate(interval.discrete));
  }
  std::sort(rates.begin(), rates.end(), std::greater<>());
  return rates;
}

void AddSizes(int device, std::uint32_t format, std::vector<CameraMode>& modes) {
  const auto add = [&](std::uint32_t width, std::uint32_t height) {
    modes.push_back({ToText(format), width, height, ListRates(device, format, width, height)});
  };
  v4l2_frmsizeenum size{};
  size.pixel_format = format;
  for (; ioctl(device, VIDIOC_ENUM_FRAMESIZES, &size) == 0; ++size.index) {
    if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
      add(size.discrete.width, size.discrete.height);
      continue;
    }
    // Any size between two: the ends tell which.
    add(size.stepwise.min_width, size.stepwise.min_height);
    add(size.stepwise.max_width, size.stepwise.max_height);
    break;
  }
}

}  // namespace

std::vector<Camera> ListCameras(const std::string& root) {
  std::vector<Camera> cameras;
  for (const std::string& node : ListNodes(root, {"video"})) {
    const UniqueFd device = UniqueFd::Open(root + node, O_RDWR | O_NONBLOCK);
    v4l2_capability capability{};
    if (!device.IsValid() || ioctl(device.Get(), VIDIOC_QUERYCAP, &capability) != 0) continue;
    const auto flags =
        (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? capability.device_caps : capability.capabilities;
    if ((flags & V4L2_CAP_VIDEO_CAPTURE) == 0) continue;
    Camera camera{
        node, reinterpret_cast<const char*>(capability.card), reinterpret_cast<const char*>(capability.driver), {}};
    v4l2_fmtdesc format{};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    for (; ioctl(device.Get(), VIDIOC_ENUM_FMT, &format) == 0; ++format.index) {
      AddSizes(device.Get(), format.pixelformat, camera.modes);
    }
    cameras.push_back(std::move(camera));
  }
  return cameras;
}

}  // namespace Tavi::Recorder::Devices
