// A capture device that exists only inside the program's process.
#pragma once

#include <linux/videodev2.h>
#include <umockdev.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <string>
#include <vector>

namespace Tavi::Simulator {

/// A V4L2 camera at "/dev/video9". Unless it is told its modes it offers nothing but YUYV 640x480 at 25 frames a
/// second, with the left half of the picture dark and the right half bright. Gone again with the object; one at a time.
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

  /// One format in one size and rate, and what it delivers, over and over from the start of each stream.
  struct Mode {
    std::uint32_t format = V4L2_PIX_FMT_YUYV;
    std::uint32_t width = Width;
    std::uint32_t height = Height;
    std::uint32_t fps = Fps;
    std::vector<std::vector<std::uint8_t>> frames;
  };

  /// Whether this process was started with umockdev's library before all others.
  [[nodiscard]] static bool IsPossible();

  /// A camera of these modes, none of them without frames; formats stand together.
  explicit FakeCamera(std::vector<Mode> modes = {MakeYuyv()});
  ~FakeCamera();

  /// Makes the device appear. What went wrong, empty when nothing did.
  [[nodiscard]] std::string PlugIn();
  /// The next frame is so much later than due, and all behind it with it.
  void Stall(int durationMs) { m_stallMs = durationMs; }
  /// From now on the device answers as one that was pulled out.
  void Unplug() { m_isUnplugged = true; }
  /// The mode that the last capture chose, by its place in the list.
  [[nodiscard]] std::size_t ChosenMode() const { return m_mode; }
  /// Buffers that the last capture asked for.
  [[nodiscard]] unsigned BufferCount() const { return m_bufferCount; }

  FakeCamera(const FakeCamera&) = delete;
  FakeCamera& operator=(const FakeCamera&) = delete;

 private:
  static gboolean HandleIoctl(UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer self) noexcept;
  /// Answers `request` in `data`, its argument; 0 or an errno.
  [[nodiscard]] int Answer(unsigned long request, void* data);
  static Mode MakeYuyv();
  [[nodiscard]] const Mode& Chosen() const { return m_modes[m_mode]; }
  [[nodiscard]] int EnumerateFormat(v4l2_fmtdesc& format) const;
  [[nodiscard]] int EnumerateSize(v4l2_frmsizeenum& size) const;
  [[nodiscard]] int EnumerateInterval(v4l2_frmivalenum& interval) const;
  [[nodiscard]] std::size_t FindMode(const v4l2_pix_format& asked) const;
  [[nodiscard]] int RequestBuffers(v4l2_requestbuffers& request);
  [[nodiscard]] int QueryBuffer(v4l2_buffer& buffer) const;
  [[nodiscard]] int Dequeue(v4l2_buffer& buffer);

  std::vector<Mode> m_modes;
  /// Of the largest frame, in whole pages.
  std::size_t m_slotBytes;
  UMockdevTestbed* m_testbed;
  UMockdevIoctlBase* m_handler;
  bool m_isAttached = false;
  /// The node, through which frames get into the buffers.
  int m_node = -1;
  std::atomic<std::size_t> m_mode = 0;
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
