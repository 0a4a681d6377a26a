// A capture device that exists only inside the program's process.
#include "Simulator/FakeCamera.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace Tavi::Simulator {
namespace {

constexpr std::size_t FrameBytes = std::size_t{FakeCamera::Width} * FakeCamera::Height * 2;
constexpr unsigned MaxBuffers = 32;
constexpr std::uint32_t Capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;

constexpr const char* Preload = "libumockdev-preload.so.0";

/// Starts the program anew with umockdev's library, once. A sanitiser's runtime would rather be the first.
__attribute__((constructor, used)) void StartWithUmockdev(int, char** argv, char**) {
  if (getenv("TAVI_FAKE_CAMERA") != nullptr) return;
  setenv("TAVI_FAKE_CAMERA", "1", 1);
  const char* options = getenv("ASAN_OPTIONS");
  setenv("ASAN_OPTIONS", (std::string(options != nullptr ? options : "") + ":verify_asan_link_order=0").c_str(), 1);
  setenv("LD_PRELOAD", Preload, 1);
  execv("/proc/self/exe", argv);
}

void Describe(v4l2_pix_format& format) {
  format = {};
  format.width = FakeCamera::Width;
  format.height = FakeCamera::Height;
  format.pixelformat = V4L2_PIX_FMT_YUYV;
  format.field = V4L2_FIELD_NONE;
  format.bytesperline = FakeCamera::Width * 2;
  format.sizeimage = FrameBytes;
  format.colorspace = V4L2_COLORSPACE_SRGB;
}

/// Fills the node with the picture, once for each buffer that may be mapped. False with errno set.
bool WriteFrames(const std::string& path) {
  std::vector<unsigned char> frame(FrameBytes, 128);
  for (std::size_t i = 0; i < FrameBytes; i += 2) {
    const bool isLeft = i / 2 % FakeCamera::Width < FakeCamera::Width / 2;
    frame[i] = isLeft ? FakeCamera::DarkLuma : FakeCamera::BrightLuma;
  }
  const int node = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (node < 0) return false;
  bool isWritten = true;
  for (unsigned i = 0; i < MaxBuffers && isWritten; ++i) {
    isWritten = write(node, frame.data(), FrameBytes) == static_cast<ssize_t>(FrameBytes);
  }
  return close(node) == 0 && isWritten;
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

FakeCamera::FakeCamera() : m_testbed(umockdev_testbed_new()), m_handler(umockdev_ioctl_base_new()) {
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
  if (!WriteFrames(node)) return node + ": " + std::strerror(errno);
  m_isAttached = umockdev_testbed_attach_ioctl(m_testbed, Device, m_handler, &error) == TRUE;
  return m_isAttached ? std::string() : TakeText(error);
}

FakeCamera::~FakeCamera() {
  if (m_isAttached) umockdev_testbed_detach_ioctl(m_testbed, Device, nullptr);
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
    case VIDIOC_QUERYCAP: {
      auto& capability = As<v4l2_capability>(data);
      std::strcpy(reinterpret_cast<char*>(capability.driver), "fake");
      std::strcpy(reinterpret_cast<char*>(capability.card), "Fake");
      capability.capabilities = Capabilities | V4L2_CAP_DEVICE_CAPS;
      capability.device_caps = Capabilities;
      return 0;
    }
    case VIDIOC_ENUM_FMT:
      if (As<v4l2_fmtdesc>(data).index > 0 || As<v4l2_fmtdesc>(data).type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
      As<v4l2_fmtdesc>(data).pixelformat = V4L2_PIX_FMT_YUYV;
      return 0;
    case VIDIOC_ENUM_FRAMESIZES: {
      auto& size = As<v4l2_frmsizeenum>(data);
      if (size.index > 0 || size.pixel_format != V4L2_PIX_FMT_YUYV) return EINVAL;
      size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
      size.discrete = {Width, Height};
      return 0;
    }
    case VIDIOC_ENUM_FRAMEINTERVALS: {
      auto& interval = As<v4l2_frmivalenum>(data);
      if (interval.index > 0) return EINVAL;
      interval.type = V4L2_FRMIVAL_TYPE_DISCRETE;
      interval.discrete = {1, Fps};
      return 0;
    }
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT:
      if (As<v4l2_format>(data).type != V4L2_BUF_TYPE_VIDEO_CAPTURE) return EINVAL;
      Describe(As<v4l2_format>(data).fmt.pix);
      return 0;
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM:
      As<v4l2_streamparm>(data).parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
      As<v4l2_streamparm>(data).parm.capture.timeperframe = {1, Fps};
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

int FakeCamera::RequestBuffers(v4l2_requestbuffers& request) {
  if (request.memory != V4L2_MEMORY_MMAP) return EINVAL;
  request.count = std::min(request.count, MaxBuffers);
  request.capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP;
  if (request.count > 0) m_bufferCount = request.count;
  return 0;
}

int FakeCamera::QueryBuffer(v4l2_buffer& buffer) const {
  if (buffer.index >= m_bufferCount) return EINVAL;
  buffer.length = FrameBytes;
  buffer.m.offset = static_cast<std::uint32_t>(buffer.index * FrameBytes);
  buffer.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
  buffer.field = V4L2_FIELD_NONE;
  return 0;
}

/// Keeps the frame rate by answering when the next frame is due, as a blocking read of a camera does.
int FakeCamera::Dequeue(v4l2_buffer& buffer) {
  if (m_queued.empty()) return EAGAIN;
  m_startUs += std::int64_t{m_stallMs.exchange(0)} * 1000;
  const std::int64_t dueUs = m_startUs + std::int64_t{++m_sequence} * G_USEC_PER_SEC / Fps;
  const std::int64_t waitUs = dueUs - g_get_monotonic_time();
  if (waitUs > 0) g_usleep(static_cast<gulong>(waitUs));
  buffer.index = m_queued.front();
  m_queued.pop_front();
  const int error = QueryBuffer(buffer);
  buffer.bytesused = FrameBytes;
  buffer.sequence = m_sequence;
  buffer.timestamp = {dueUs / G_USEC_PER_SEC, dueUs % G_USEC_PER_SEC};
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
