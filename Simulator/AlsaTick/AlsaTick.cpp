// The simulated microphone: an external PCM plug-in of ALSA that captures ticks at the pace of the clock.
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <endian.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <span>
#include <string>
#include <string_view>

#include "Simulator/AlsaTick/CaptureRun.h"
#include "Simulator/AlsaTick/GainControl.h"
#include "Simulator/AlsaTick/TickSignal.h"

namespace Tavi::Simulator {
namespace {

/// Reads of a pulled card that fail at once, before others say that it is gone: seconds of sound, to who counts them.
constexpr int ReadsThatFailFirst = 400;

/// What the configuration says of a card.
struct CardSettings {
  /// The card is not there while a file of this name is; empty: it always is.
  const char* pulled = "";
  /// Its crystal, in parts per million: a real card's is off by up to a hundred.
  long fasterPpm = 0;
};

/// Writes samples into one channel of ALSA's buffer.
void Put(std::span<const std::int16_t> samples, const snd_pcm_channel_area_t& area, snd_pcm_uframes_t offset) {
  const std::size_t stepBytes = area.step / 8;
  char* to = static_cast<char*>(area.addr) + area.first / 8 + stepBytes * offset;
  for (const std::int16_t sample : samples) {
    const std::int16_t value = htole16(sample);
    std::memcpy(to, &value, sizeof value);
    to += stepBytes;
  }
}

/// One open device. ALSA calls most of it under its lock, whichever thread asks, but not what belongs to polling; hence
/// the mutex.
class TickDevice {
 public:
  TickDevice();
  ~TickDevice();

  /// Opens one for ALSA, which closes it. 0 or a negative errno, as all of ALSA's.
  static int Open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode, const CardSettings& settings);

  TickDevice(const TickDevice&) = delete;
  TickDevice& operator=(const TickDevice&) = delete;

 private:
  static TickDevice& Of(snd_pcm_ioplug_t* io) { return *static_cast<TickDevice*>(io->private_data); }

  int Create(const char* name, snd_pcm_stream_t stream, int mode);
  int Constrain();
  int Start();
  int Stop();
  [[nodiscard]] bool IsPulled() const { return !m_pulled.empty() && access(m_pulled.c_str(), F_OK) == 0; }
  snd_pcm_sframes_t Position();
  int Delay(snd_pcm_sframes_t& frames);
  void Fill(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t count);
  int SetSoftware(snd_pcm_sw_params_t* params);
  unsigned short Poll();
  bool RearmIfEarly();

  /// Frames that the reader may take by now: whole periods, as of a card that interrupts at each. Were it every frame,
  /// alsa-lib would cut reads up: for the rest of one it waits until a whole period is there, then gives the surplus to
  /// the next read. Ever more would be taken in advance, and the clock that GStreamer makes of what it has read and of
  /// the delay would swing by a period.
  [[nodiscard]] std::uint64_t CountReadable() const {
    return m_run.CountFrames() / m_io.period_size * m_io.period_size;
  }
  /// Sets the timer to when the reader wants to wake.
  void ArmForReader();
  /// Frames that the reader has taken so far, by ALSA's pointers; only for calls under ALSA's lock.
  [[nodiscard]] std::uint64_t CountTaken() const;
  void ArmTimer(std::int64_t monotonicNs);

  static const snd_pcm_ioplug_callback_t Callbacks;

  snd_pcm_ioplug_t m_io{};
  std::string m_pulled;
  long m_fasterPpm = 0;
  int m_failedReads = 0;
  std::mutex m_mutex;
  int m_timer;
  bool m_isRunning = false;
  CaptureRun m_run;
  /// CountReadable when ALSA last asked; its own pointer is this one modulo the boundary.
  std::uint64_t m_readable = 0;
  std::uint64_t m_taken = 0;
  snd_pcm_uframes_t m_boundary = 0;
  snd_pcm_uframes_t m_wakeAt = 1;
};

TickDevice::TickDevice() : m_timer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {}

TickDevice::~TickDevice() {
  if (m_timer >= 0) close(m_timer);
}

int TickDevice::Open(snd_pcm_t** pcm, const char* name, snd_pcm_stream_t stream, int mode,
                     const CardSettings& settings) {
  if (stream != SND_PCM_STREAM_CAPTURE) {
    SNDERR("the simulated microphone %s captures only", name);
    return -EINVAL;
  }
  std::unique_ptr<TickDevice> made(new (std::nothrow) TickDevice);
  if (!made) return -ENOMEM;
  made->m_pulled = settings.pulled;
  made->m_fasterPpm = settings.fasterPpm;
  if (made->IsPulled()) return -ENODEV;
  int error = made->Create(name, stream, mode);
  if (error < 0) return error;
  // ALSA's from here on: deleting the plug-in calls back to close, which deletes this object.
  TickDevice& device = *made.release();
  error = device.Constrain();
  if (error < 0) {
    snd_pcm_ioplug_delete(&device.m_io);
    return error;
  }
  *pcm = device.m_io.pcm;
  return 0;
}

int TickDevice::Create(const char* name, snd_pcm_stream_t stream, int mode) {
  if (m_timer < 0) return -EMFILE;
  m_io.version = SND_PCM_IOPLUG_VERSION;
  m_io.name = "Simulated microphone";
  // The pointer runs up to the boundary: modulo the buffer, a reader late by exactly one buffer would go unnoticed.
  m_io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
  m_io.poll_fd = m_timer;
  m_io.poll_events = POLLIN;
  m_io.callback = &Callbacks;
  m_io.private_data = this;
  return snd_pcm_ioplug_create(&m_io, name, stream, mode);
}

int TickDevice::Constrain() {
  static constexpr unsigned Accesses[] = {SND_PCM_ACCESS_RW_INTERLEAVED};
  static constexpr unsigned Formats[] = {SND_PCM_FORMAT_S16_LE};
  int error = snd_pcm_ioplug_set_param_list(&m_io, SND_PCM_IOPLUG_HW_ACCESS, 1, Accesses);
  if (error == 0) error = snd_pcm_ioplug_set_param_list(&m_io, SND_PCM_IOPLUG_HW_FORMAT, 1, Formats);
  struct Range {
    int parameter;
    unsigned low;
    unsigned high;
  };
  static constexpr Range Ranges[] = {{SND_PCM_IOPLUG_HW_CHANNELS, 1, 2},
                                     {SND_PCM_IOPLUG_HW_RATE, 8000, 48000},
                                     {SND_PCM_IOPLUG_HW_PERIOD_BYTES, 64, 1U << 18},
                                     {SND_PCM_IOPLUG_HW_BUFFER_BYTES, 128, 1U << 20},
                                     {SND_PCM_IOPLUG_HW_PERIODS, 2, 1024}};
  for (const Range& range : Ranges) {
    if (error == 0) error = snd_pcm_ioplug_set_param_minmax(&m_io, range.parameter, range.low, range.high);
  }
  return error;
}

int TickDevice::Start() {
  const std::lock_guard lock(m_mutex);
  m_run = CaptureRun(static_cast<unsigned>(m_io.rate + m_io.rate * std::int64_t{m_fasterPpm} / 1'000'000));
  m_readable = 0;
  m_taken = 0;
  m_isRunning = true;
  ArmForReader();
  return 0;
}

int TickDevice::Stop() {
  const std::lock_guard lock(m_mutex);
  m_isRunning = false;
  ArmTimer(0);
  return 0;
}

/// ALSA's pointer. A negative answer tells ALSA of the overrun; the device then stands still until it is prepared and
/// started again.
snd_pcm_sframes_t TickDevice::Position() {
  const std::lock_guard lock(m_mutex);
  if (m_isRunning && !IsPulled()) {
    m_taken = CountTaken();
    m_readable = CountReadable();
    m_isRunning = m_run.CountFrames() - m_taken < m_io.buffer_size;
    if (!m_isRunning) return -EPIPE;
  } else if (m_io.state == SND_PCM_STATE_XRUN) {
    return -EPIPE;
  } else if (m_io.state == SND_PCM_STATE_PREPARED) {
    return 0;
  }
  return static_cast<snd_pcm_sframes_t>(m_boundary == 0 ? 0 : m_readable % m_boundary);
}

/// To the frame, unlike the pointer.
int TickDevice::Delay(snd_pcm_sframes_t& frames) {
  if (m_io.state == SND_PCM_STATE_XRUN) return -EPIPE;
  const std::lock_guard lock(m_mutex);
  if (IsPulled()) return -ENODEV;
  frames = static_cast<snd_pcm_sframes_t>((m_isRunning ? m_run.CountFrames() : m_readable) - CountTaken());
  return 0;
}

std::uint64_t TickDevice::CountTaken() const {
  return m_readable - snd_pcm_ioplug_avail(&m_io, m_io.hw_ptr, m_io.appl_ptr);
}

void TickDevice::Fill(const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset, snd_pcm_uframes_t count) {
  const std::lock_guard lock(m_mutex);
  m_run.FollowWallClock();
  const std::uint64_t first = CountTaken();
  const double gain = static_cast<double>(GainControl::Get()) / GainControl::Middle;
  FrameTime time = m_run.TimeFrom(first);
  auto index = static_cast<std::uint32_t>(first);
  std::array<std::int16_t, 256> sound{};
  for (snd_pcm_uframes_t done = 0; done < count;) {
    const std::span block(sound.data(), std::min<std::size_t>(sound.size(), count - done));
    TickSignal::Render(block, time, index, gain);
    for (unsigned channel = 0; channel < m_io.channels; ++channel) Put(block, areas[channel], offset + done);
    done += block.size();
  }
  m_taken = first + count;
  ArmForReader();
}

int TickDevice::SetSoftware(snd_pcm_sw_params_t* params) {
  const std::lock_guard lock(m_mutex);
  int error = snd_pcm_sw_params_get_boundary(params, &m_boundary);
  if (error == 0) error = snd_pcm_sw_params_get_avail_min(params, &m_wakeAt);
  return error;
}

/// What it means to the reader that the timer has run out. Called outside of ALSA's lock.
unsigned short TickDevice::Poll() {
  if (IsPulled()) {
    // As the kernel does while it takes a card away, and then until it is opened anew.
    if (++m_failedReads > ReadsThatFailFirst) snd_pcm_ioplug_set_state(&m_io, SND_PCM_STATE_DISCONNECTED);
    ArmTimer(1);
    return POLLIN | POLLERR;
  }
  if (RearmIfEarly()) return 0;
  // Lets ALSA notice an overrun, which its own poll does not.
  snd_pcm_avail_update(m_io.pcm);
  return m_io.state == SND_PCM_STATE_XRUN ? POLLIN | POLLERR : POLLIN;
}

/// The descriptor is readable from the time on when enough frames should be there; it is set anew in case that the
/// reader has taken some meanwhile.
bool TickDevice::RearmIfEarly() {
  const std::lock_guard lock(m_mutex);
  if (!m_isRunning || CountReadable() >= m_taken + m_wakeAt) return false;
  ArmForReader();
  return true;
}

void TickDevice::ArmForReader() {
  const std::uint64_t period = m_io.period_size;
  ArmTimer(m_run.WhenNs((m_taken + m_wakeAt + period - 1) / period * period));
}

/// A time that has passed makes the descriptor readable at once, 0 never.
void TickDevice::ArmTimer(std::int64_t monotonicNs) {
  itimerspec time{};
  time.it_value.tv_sec = static_cast<std::time_t>(monotonicNs / 1'000'000'000);
  time.it_value.tv_nsec = static_cast<long>(monotonicNs % 1'000'000'000);
  timerfd_settime(m_timer, TFD_TIMER_ABSTIME, &time, nullptr);
}

const snd_pcm_ioplug_callback_t TickDevice::Callbacks = [] {
  snd_pcm_ioplug_callback_t c{};
  c.start = [](snd_pcm_ioplug_t* io) noexcept { return Of(io).Start(); };
  c.stop = [](snd_pcm_ioplug_t* io) noexcept { return Of(io).Stop(); };
  c.pointer = [](snd_pcm_ioplug_t* io) noexcept { return Of(io).Position(); };
  c.transfer = [](snd_pcm_ioplug_t* io, const snd_pcm_channel_area_t* areas, snd_pcm_uframes_t offset,
                  snd_pcm_uframes_t count) noexcept {
    Of(io).Fill(areas, offset, count);
    return static_cast<snd_pcm_sframes_t>(count);
  };
  c.delay = [](snd_pcm_ioplug_t* io, snd_pcm_sframes_t* frames) noexcept { return Of(io).Delay(*frames); };
  // What has been captured is not waited for: a capture ends at once.
  c.drain = [](snd_pcm_ioplug_t*) noexcept { return 0; };
  c.close = [](snd_pcm_ioplug_t* io) noexcept {
    delete &Of(io);
    return 0;
  };
  c.sw_params = [](snd_pcm_ioplug_t* io, snd_pcm_sw_params_t* params) noexcept { return Of(io).SetSoftware(params); };
  c.poll_revents = [](snd_pcm_ioplug_t* io, pollfd* descriptors, unsigned count, unsigned short* events) noexcept {
    if (count != 1) return -EINVAL;
    *events = (descriptors[0].revents & POLLIN) != 0 ? Of(io).Poll() : 0;
    return 0;
  };
  return c;
}();

/// "type" and the like are ALSA's own.
int ReadSettings(snd_config_t* from, CardSettings& settings) {
  snd_config_iterator_t entry;
  snd_config_iterator_t next;
  snd_config_for_each(entry, next, from) {
    snd_config_t* setting = snd_config_iterator_entry(entry);
    const char* id = nullptr;
    if (snd_config_get_id(setting, &id) < 0) continue;
    const std::string_view name = id;
    if (name == "type" || name == "comment" || name == "hint") continue;
    if (name == "pulled" && snd_config_get_string(setting, &settings.pulled) == 0) continue;
    if (name == "fasterPpm" && snd_config_get_integer(setting, &settings.fasterPpm) == 0) continue;
    SNDERR("the simulated microphone does not know the setting %s", id);
    return -EINVAL;
  }
  return 0;
}

}  // namespace
}  // namespace Tavi::Simulator

extern "C" {
#pragma GCC visibility push(default)

/// What ALSA looks for in the library of the type "tavi_sim".
SND_PCM_PLUGIN_DEFINE_FUNC(tavi_sim) {
  (void)root;
  Tavi::Simulator::CardSettings settings;
  const int error = Tavi::Simulator::ReadSettings(conf, settings);
  return error < 0 ? error : Tavi::Simulator::TickDevice::Open(pcmp, name, stream, mode, settings);
}

SND_PCM_PLUGIN_SYMBOL(tavi_sim)

#pragma GCC visibility pop
}
