// What is connected to this machine that the recorder could record.
#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace Tavi::Recorder::Devices {

/// One picture format of a camera in one size.
struct CameraMode {
  /// Four characters (V4L2, "YUYV", "MJPG", "H264").
  std::string format;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  /// Frames a second, the highest first; both ends of a range that the driver leaves open. Empty when it does not tell.
  std::vector<double> rates;
};

struct Camera {
  std::string path;
  /// As the driver calls it.
  std::string name;
  std::string driver;
  std::vector<CameraMode> modes;
};

/// A device that captures sound.
struct SoundCard {
  /// For `pipeline.audio.device`: "plughw:1,0".
  std::string name;
  std::string description;
};

struct SerialPort {
  /// Where there is one, the name that stays when the ports are plugged in another order.
  std::string path;
  /// The port itself.
  std::string node;
};

/// An accelerometer that answers by its id.
struct MotionChip {
  int bus = 0;
  std::uint8_t address = 0;
};

/// An accelerometer that the kernel drives (IIO).
struct KernelSensor {
  /// For `pipeline.acc.device`: "iio:device0".
  std::string device;
  /// As its driver calls it.
  std::string name;
};

struct DeviceList {
  std::vector<Camera> cameras;
  std::vector<SoundCard> soundCards;
  std::vector<SerialPort> serialPorts;
  std::vector<MotionChip> motionChips;
  std::vector<KernelSensor> kernelSensors;
};

/// Asks the kernel, and opens each device for a moment; one that is in use or may not be opened is left out where it
/// does not answer. `root` stands in front of "/dev" and "/sys" in tests. Reentrant.
[[nodiscard]] std::vector<Camera> ListCameras(const std::string& root = {});
[[nodiscard]] std::vector<SoundCard> ListSoundCards();
[[nodiscard]] std::vector<SerialPort> ListSerialPorts(const std::string& root = {});
/// Looks at the two addresses that the chip can have, on every bus; a read of one register, which changes nothing.
[[nodiscard]] std::vector<MotionChip> ListMotionChips(const std::string& root = {});
[[nodiscard]] std::vector<KernelSensor> ListKernelSensors(const std::string& root = {});
[[nodiscard]] DeviceList ListDevices();

/// For people, a line a device and a mode, with the setting that each is for.
[[nodiscard]] std::string FormatText(const DeviceList& devices);
[[nodiscard]] nlohmann::ordered_json ToJson(const DeviceList& devices);

}  // namespace Tavi::Recorder::Devices
