// A capture device that exists only inside the program's process.
#pragma once

#include <umockdev.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>

#include <linux/videodev2.h>

namespace Tavi::Simulator {

/// A V4L2 camera at "/dev/video9" that offers nothing but YUYV 640x480 at 25 frames a second. The left half of its
/// picture is dark, the right half bright. Gone again with the object; one at a time.
///
/// umockdev leads open and ioctl of the node here; its preloaded library is needed, which a program that links this
/// arranges for by starting itself anew with it. The node is a plain file that holds the frame buffers, so that mmap of
/// it is the kernel's own. Requests are answered on a thread of umockdev, one at a time; the object is made, unplugged
/// and destroyed on the program's own.
class FakeCamera {
 public:
  static constexpr const char* Device = "/dev/video9";
  static constexpr int Width = 640;
  static constexpr int Height = 480;
  static constexpr int Fps = 25;
  /// From the start of the stream to a frame's time before the first.
  static constexpr int WarmUpMs = 200;
  static constexpr int DarkLuma = 40;
  static constexpr int BrightLuma = 180;

  /// Whether this process was started with umockdev's library before all others.
  [[nodiscard]] static bool IsPossible();

  FakeCamera();
  ~FakeCamera();

  /// Makes the device appear. What went wrong, empty when nothing did.
  [[nodiscard]] std::string PlugIn();
  /// The next frame is so much later than due, and all behind it with it.
  void Stall(int durationMs) { m_stallMs = durationMs; }
  /// From now on the device answers as one that was pulled out.
  void Unplug() { m_isUnplugged = true; }
  /// Buffers that the last capture asked for.
  [[nodiscard]] unsigned BufferCount() const { return m_bufferCount; }

  FakeCamera(const FakeCamera&) = delete;
  FakeCamera& operator=(const FakeCamera&) = delete;

 private:
  static gboolean HandleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) noexcept;
  /// Answers `request` in `data`, its argument; 0 or an errno.
  [[nodiscard]] int Answer(unsigned long request, void* data);
  [[nodiscard]] int RequestBuffers(v4l2_requestbuffers& request);
  [[nodiscard]] int QueryBuffer(v4l2_buffer& buffer) const;
  [[nodiscard]] int Dequeue(v4l2_buffer& buffer);

  UMockdevTestbed* m_testbed;
  UMockdevIoctlBase* m_handler;
  bool m_isAttached = false;
  std::atomic<bool> m_isUnplugged = false;
  std::atomic<unsigned> m_bufferCount = 0;
  std::atomic<int> m_stallMs = 0;
  /// Buffers that wait for a picture.
  std::deque<std::uint32_t> m_queued;
  /// Frames delivered since the stream was started, and when that was.
  std::uint32_t m_sequence = 0;
  std::int64_t m_startUs = 0;
};

}  // namespace Tavi::Simulator
