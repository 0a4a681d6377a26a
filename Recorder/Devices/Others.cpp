// Sound cards, serial ports and accelerometers.
#include <alsa/asoundlib.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <linux/serial.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>

#include "Kdevice/ACC/Mma8451.h"
#include "Kdevice/I2C/I2c.h"
#include "Ksystem/FileUtils/UniqueFd.h"
#include "Recorder/Devices/DeviceList.h"
#include "Recorder/Devices/Nodes.h"

namespace Tavi::Recorder::Devices {
namespace {

namespace fs = std::filesystem;
namespace Mma8451 = Kdevice::ACC::Mma8451;
using Ksystem::FileUtils::UniqueFd;

void AddCaptures(int card, std::vector<SoundCard>& found) {
  snd_ctl_t* control = nullptr;
  if (snd_ctl_open(&control, fmt::format("hw:{}", card).c_str(), SND_CTL_NONBLOCK) < 0) return;
  const std::unique_ptr<snd_ctl_t, int (*)(snd_ctl_t*)> closing(control, snd_ctl_close);
  snd_pcm_info_t* info = nullptr;
  if (snd_pcm_info_malloc(&info) < 0) return;
  const std::unique_ptr<snd_pcm_info_t, void (*)(snd_pcm_info_t*)> freeing(info, snd_pcm_info_free);
  char* name = nullptr;
  const std::string cardName = snd_card_get_name(card, &name) == 0 ? name : "";
  std::free(name);
  for (int device = -1; snd_ctl_pcm_next_device(control, &device) == 0 && device >= 0;) {
    snd_pcm_info_set_device(info, static_cast<unsigned>(device));
    snd_pcm_info_set_stream(info, SND_PCM_STREAM_CAPTURE);
    if (snd_ctl_pcm_info(control, info) < 0) continue;
    found.push_back({fmt::format("plughw:{},{}", card, device), cardName + ", " + snd_pcm_info_get_name(info)});
  }
}

/// The kernel keeps nodes for ports that no hardware stands behind.
bool IsThere(const std::string& path) {
  const UniqueFd port = UniqueFd::Open(path, O_RDONLY | O_NOCTTY | O_NONBLOCK);
  serial_struct state{};
  return port.IsValid() && ioctl(port.Get(), TIOCGSERIAL, &state) == 0 && state.type != PORT_UNKNOWN;
}

}  // namespace

std::vector<SoundCard> ListSoundCards() {
  std::vector<SoundCard> found;
  for (int card = -1; snd_card_next(&card) == 0 && card >= 0;) AddCaptures(card, found);
  return found;
}

std::vector<SerialPort> ListSerialPorts(const std::string& root) {
  std::vector<SerialPort> ports;
  for (const std::string& node : ListNodes(root, {"ttyUSB", "ttyACM", "ttyAMA", "ttymxc"}))
    ports.push_back({node, node});
  for (const std::string& node : ListNodes(root, {"ttyS"})) {
    if (IsThere(root + node)) ports.push_back({node, node});
  }
  // udev's names of the same ports.
  std::error_code ignored;
  for (const auto& link : fs::directory_iterator(root + "/dev/serial/by-id", ignored)) {
    const std::string node = "/dev/" + fs::read_symlink(link.path(), ignored).filename().string();
    const auto port = std::ranges::find(ports, node, &SerialPort::node);
    if (port != ports.end()) port->path = "/dev/serial/by-id/" + link.path().filename().string();
  }
  return ports;
}

std::vector<MotionChip> ListMotionChips(const std::string& root) {
  // By its pin SA0 (MMA8451Q data sheet, I2C device address).
  constexpr std::uint8_t Addresses[] = {0x1C, 0x1D};
  std::vector<MotionChip> chips;
  for (const std::string& node : ListNodes(root, {"i2c-"})) {
    for (const std::uint8_t address : Addresses) {
      Kdevice::I2C::I2c bus(GetNumber(node));
      std::uint8_t id = 0;
      if (!bus.ReadRegisters(address, Mma8451::WHO_AM_I, {&id, 1}) || id != Mma8451::WHO_AM_I_VALUE) continue;
      chips.push_back({GetNumber(node), address});
    }
  }
  return chips;
}

std::vector<KernelSensor> ListKernelSensors(const std::string& root) {
  std::vector<KernelSensor> sensors;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(root + "/sys/bus/iio/devices", ignored)) {
    // One that can be read through its buffer.
    if (!fs::exists(entry.path() / "scan_elements/in_accel_x_en", ignored)) continue;
    KernelSensor sensor{entry.path().filename().string(), {}};
    std::ifstream(entry.path() / "name") >> sensor.name;
    sensors.push_back(std::move(sensor));
  }
  std::ranges::sort(sensors, {}, &KernelSensor::device);
  return sensors;
}

}  // namespace Tavi::Recorder::Devices
