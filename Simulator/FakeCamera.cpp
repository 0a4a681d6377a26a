// A capture device that exists only inside the program's process.
#include "Simulator/FakeCamera.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace Tavi::Simulator {
namespace {

constexpr std::size_t PageBytes = 4096;
constexpr unsigned MaxBuffers = 32;
constexpr std::uint32_t Capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;

constexpr const char* Preload = "libumockdev-preload.so.0";

/// Starts the program anew with umockdev's library, once. A sanitiser's runtime would rather be the first.
__attribute__((constructor, used)) void StartWithUmockdev(int, char** argv, char**) {
  if (getenv("TAVI_FAKE_CAMERA") != nullptr) return;
  setenv("TAVI_FAKE_CAMERA", "1", 1);
  const char* options = getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", (std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0").c_str(), 1);
  const char* others = getenv("LD_PRELOAD");
  setenv("LD_PRELOAD",
         (Preload + std::string(others != nullptr ? ":" : "") + (others != nullptr ? others : "")).c_str(), 1);
  execv("/proc/self/exe", argv);
}

void Describe(const FakeCamera::Mode& mode, std::size_t slotBytes, v4l2_pix_format& format) {
  format = {};
  format.width = mode.width;
  format.height = mode.height;
  format.pixelformat = mode.format;
  format.field = V4L2_FIELD_NONE;
  format.bytesperline = mode.format == V4L2_PIX_FMT_YUYV ? mode.width * 2 : 0;
  format.sizeimage = static_cast<std::uint32_t>(mode.format == V4L2_PIX_FMT_YUYV ? mode.frames[0].size() : slotBytes);
  format.colorspace = V4L2_COLORSPACE_SRGB;
}

void Describe(v4l2_capability& capability) {
  std::strcpy(reinterpret_cast<char*>(capability.driver), "fake");
  std::strcpy(reinterpret_cast<char*>(capability.card), "Fake");
  capability.capabilities = Capabilities | V4L2_CAP_DEVICE_CAPS;
  capability.device_caps = Capabilities;
}

std::string TakeText(GError* error) {
  std::string text = error->message;
  g_error_free(error);
  return text;
}

template <class Record>
Record& As(void* data) {
  return *static_cast<Record*>(data);
}

bool IsSameFile(int descriptor, const char* path) {
  struct stat a {};
  struct stat b {};
  return fstat(descriptor, &a) == 0 && stat(path, &b) == 0 && a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

}  // namespace

bool FakeCamera::IsPossible() {
  void* const library = dlopen(Preload, RTLD_LAZY | RTLD_NOLOAD);
  if (library != nullptr) dlclose(library);
  return library != nullptr;
}

FakeCamera::Mode FakeCamera::MakeYuyv() {
  std::vector<std::uint8_t> frame(std::size_t{Width} * Height * 2, 128);
  for (std::size_t i = 0; i < frame.size(); i += 2) {
    frame[i] = i / 2 % Width < Width / 2 ? DarkLuma : BrightLuma;
  }
  Mode mode;
  mode.frames.push_back(std::move(frame));
  return mode;
}

FakeCamera::FakeCamera(std::vector<Mode> modes)
    : m_modes(std::move(modes)),
      m_slotBytes(PageBytes),
      m_testbed(umockdev_testbed_new()),
      m_handler(umockdev_ioctl_base_new()) {
  for (const Mode& mode : m_modes) {
    for (const auto& frame : mode.frames) {
      m_slotBytes = std::max(m_slotBytes, (frame.size() + PageBytes - 1) / PageBytes * PageBytes);
    }
  }
  g_signal_connect(m_handler, "handle-ioctl", G_CALLBACK(HandleIoctl), this);
}

std::string FakeCamera::PlugIn() {
  GError* error = nullptr;
  umockdev_testbed_add_from_string(m_testbed,
                                   "P: /devices/virtual/video4linux/video9\nN: video9=00\nE: DEVNAME=/dev/video9\n"
                                   "E: SUBSYSTEM=video4linux\nE: MAJOR=81\nE: MINOR=9\nA: name=Fake\\n\n",
                                   &error);
  if (error != nullptr) return TakeText(error);
  gchar* root = umockdev_testbed_get_root_dir(m_testbed);
  const std::string node = std::string(root) + Device;
  g_free(root);
  m_node = open(node.c_str(), O_RDWR | O_CLOEXEC);
  if (m_node < 0 || ftruncate(m_node, static_cast<off_t>(MaxBuffers * m_slotBytes)) != 0) {
    return node + ": " + std::strerror(errno);
  }
  m_isAttached = umockdev_testbed_attach_ioctl(m_testbed, Device, m_handler, &error) == TRUE;
  return m_isAttached ? std::string() : TakeText(error);
}

FakeCamera::~FakeCamera() {
  if (m_isAttached) umockdev_testbed_detach_ioctl(m_testbed, Device, nullptr);
  if (m_node >= 0) close(m_node);
  g_object_unref(m_handler);
  g_object_unref(m_testbed);
}

gboolean FakeCamera::HandleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) noexcept {
  const gulong request = umockdev_ioctl_client_get_request(client);
  UMockdevIoctlData* argument = umockdev_ioctl_client_get_arg(client);
  UMockdevIoctlData* data = umockdev_ioctl_data_resolve(argument, 0, _IOC_SIZE(request), nullptr);
  const int error = data == nullptr ? EFAULT : static_cast<FakeCamera*>(self)->Answer(request, data->data);
  if (data != nullptr) umockdev_ioctl_data_unref(data);
  umockdev_ioctl_client_complete(client, error == 0 ? 0 : -1, error);
  return TRUE;
}

int FakeCamera::Answer(unsigned long request, void* data) {
  if (m_isUnplugged) return ENODEV;
  switch (request) {
    case VIDIOC_QUERYCAP:
      Describe(As<v4l2_capability>(data));
      return 0;
    case VIDIOC_ENUM_FMT:
      return EnumerateFormat(As<v4l2_fmtdesc>(data));
    case VIDIOC_ENUM_FRAMESIZES:
      return EnumerateSize(As<v4l2_frmsizeenum>(data));
    case VIDIOC_ENUM_FRAMEINTERVALS:
      return EnumerateInterval(As<v4l2_frmivalenum>(data));
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: {
      auto& format = As<v4l2_format>(data);
      if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
      const std::size_t mode = request == VIDIOC_G_FMT ? m_mode.load() : FindMode(format.fmt.pix);
      if (request == VIDIOC_S_FMT) m_mode = mode;
      Describe(m_modes[mode], m_slotBytes, format.fmt.pix);
      return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
      As<v4l2_streamparm>(data).parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
      As<v4l2_streamparm>(data).parm.capture.timeperframe = {1, Chosen().fps};
      return 0;
    case VIDIOC_REQBUFS:
      return RequestBuffers(As<v4l2_requestbuffers>(data));
    case VIDIOC_QUERYBUF:
      return QueryBuffer(As<v4l2_buffer>(data));
    case VIDIOC_QBUF:
      m_queued.push_back(As<v4l2_buffer>(data).index);
      return QueryBuffer(As<v4l2_buffer>(data));
    case VIDIOC_DQBUF:
      return Dequeue(As<v4l2_buffer>(data));
    case VIDIOC_STREAMON:
      m_sequence = 0;
      m_startUs = g_get_monotonic_time() + WarmUpMs * 1000;
      return 0;
    case VIDIOC_STREAMOFF:
      m_queued.clear();
      return 0;
    default:
      return ENOTTY;
  }
}

int FakeCamera::EnumerateFormat(v4l2_fmtdesc& format) const {
  if (format.type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
  std::vector<std::uint32_t> formats;
  for (const Mode& mode : m_modes) {
    if (formats.empty() || formats.back() != mode.format) formats.push_back(mode.format);
  }
  if (format.index >= formats.size()) return EINVAL;
  format.pixelformat = formats[format.index];
  format.flags = format.pixelformat == V4L2_PIX_FMT_YUYV ? 0 : V4L2_FMT_FLAG_COMPRESSED;
  return 0;
}

int FakeCamera::EnumerateSize(v4l2_frmsizeenum& size) const {
  std::uint32_t index = 0;
  for (const Mode& mode : m_modes) {
    if (mode.format != size.pixel_format || index++ != size.index) continue;
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete = {mode.width, mode.height};
    return 0;
  }
  return EINVAL;
}

int FakeCamera::EnumerateInterval(v4l2_frmivalenum& interval) const {
  if (interval.index > 0) return EINVAL;
  for (const Mode& mode : m_modes) {
    if (mode.format != interval.pixel_format || mode.width != interval.width || mode.height != interval.height)
      continue;
    interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
    interval.discrete = {1, mode.fps};
    return 0;
  }
  return EINVAL;
}

/// The asked format in the nearest size, as drivers do it.
std::size_t FakeCamera::FindMode(const v4l2_pix_format& asked) const {
  const auto distance = [&asked](const Mode& mode) {
    const bool isOther = mode.format != asked.pixelformat;
    return (isOther ? 1 << 20 : 0) + std::abs(static_cast<int>(mode.width) - static_cast<int>(asked.width)) +
           std::abs(static_cast<int>(mode.height) - static_cast<int>(asked.height));
  };
  const auto nearest = std::min_element(
      m_modes.begin(), m_modes.end(), [&distance](const Mode& a, const Mode& b) { return distance(a) < distance(b); });
  return static_cast<std::size_t>(nearest - m_modes.begin());
}

int FakeCamera::RequestBuffers(v4l2_requestbuffers& request) {
  if (request.memory != V4L2_MEMORY_MMAP) return EINVAL;
  request.count = std::min(request.count, MaxBuffers);
  request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
  if (request.count > 0) m_bufferCount = request.count;
  return 0;
}

int FakeCamera::QueryBuffer(v4l2_buffer& buffer) const {
  if (buffer.index >= m_bufferCount) return EINVAL;
  buffer.length = static_cast<std::uint32_t>(m_slotBytes);
  buffer.m.offset = static_cast<std::uint32_t>(buffer.index * m_slotBytes);
  buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  buffer.field = V4L2_FIELD_NONE;
  return 0;
}

/// Keeps the frame rate by answering when the next frame is due, as a blocking read of a camera does.
int FakeCamera::Dequeue(v4l2_buffer& buffer) {
  if (m_queued.empty()) return EAGAIN;
  m_startUs += std::int64_t{m_stallMs.exchange(0)} * 1000;
  const std::int64_t dueUs = m_startUs + std::int64_t{++m_sequence} * G_USEC_PER_SEC / Chosen().fps;
  const std::int64_t waitUs = dueUs - g_get_monotonic_time();
  if (waitUs > 0) g_usleep(static_cast<gulong>(waitUs));
  buffer.index = m_queued.front();
  m_queued.pop_front();
  const auto& frame = Chosen().frames[(m_sequence - 1) % Chosen().frames.size()];
  const auto offset = static_cast<off_t>(buffer.index * m_slotBytes);
  if (pwrite(m_node, frame.data(), frame.size(), offset) != static_cast<ssize_t>(frame.size())) return EIO;
  const int error = QueryBuffer(buffer);
  buffer.bytesused = static_cast<std::uint32_t>(frame.size());
  buffer.sequence = m_sequence;
  buffer.timestamp.tv_sec = static_cast<decltype(buffer.timestamp.tv_sec)>(dueUs / G_USEC_PER_SEC);
  buffer.timestamp.tv_usec = static_cast<decltype(buffer.timestamp.tv_usec)>(dueUs % G_USEC_PER_SEC);
  return error;
}

}  // namespace Tavi::Simulator

/// Takes the place of the C library's for the whole program. umockdev leads ioctl by the descriptor that open returned
/// and loses sight of a copy; v4l2src streams through one. A copy of the fake node is therefore opened anew.
extern "C" int dup(int descriptor) noexcept {
  const char* const device = Tavi::Simulator::FakeCamera::Device;
  if (Tavi::Simulator::IsSameFile(descriptor, device)) return open(device, O_RDWR | O_CLOEXEC);
  return fcntl(descriptor, F_DUPFD, 0);
}

#if __TIMESIZE == 32
/// The ioctl of programs whose times have 64 bits, which umockdev does not know. Requests with times in them differ
/// between the two; of those the programs make none.
extern "C" int __ioctl_time64(int descriptor, unsigned long request, ...) noexcept {
  va_list list;
  va_start(list, request);
  void* const argument = va_arg(list, void*);
  va_end(list);
  return ioctl(descriptor, request, argument);
}
#endif
