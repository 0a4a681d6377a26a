// What is connected to this machine, as text and as JSON.
#include "Recorder/Devices/DeviceList.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace Tavi::Recorder::Devices {
namespace {

std::string FormatMode(const CameraMode& mode) {
  std::string text = fmt::format("    {:4} {}x{}", mode.format, mode.width, mode.height);
  std::string rates;
  for (const double rate : mode.rates) rates += fmt::format("{}{:.4g}", rates.empty() ? " at " : ", ", rate);
  return text + (rates.empty() ? "\n" : rates + " frames/s\n");
}

/// A heading that names the setting, and the lines below it; one that says so where there are none.
template <class Device, class Format>
std::string FormatGroup(const char* heading, const std::vector<Device>& devices, Format format) {
  std::string text = std::string(heading) + "\n";
  for (const Device& device : devices) text += "  " + format(device);
  return devices.empty() ? text + "  none\n" : text;
}

}  // namespace

DeviceList ListDevices() {
  return {ListCameras(), ListSoundCards(), ListSerialPorts(), ListMotionChips(), ListKernelSensors()};
}

std::string FormatText(const DeviceList& devices) {
  std::string text = FormatGroup(
      "Cameras (pipeline.camera0.device, pipeline.camera1.device)", devices.cameras, [](const Camera& camera) {
        std::string lines = fmt::format("{}  {} ({})\n", camera.path, camera.name, camera.driver);
        for (const auto& mode : camera.modes) lines += FormatMode(mode);
        return lines;
      });
  text += FormatGroup("Sound cards (pipeline.audio.device)", devices.soundCards,
                      [](const SoundCard& card) { return card.name + "  " + card.description + "\n"; });
  text += FormatGroup("Serial ports (pipeline.gps.path)", devices.serialPorts, [](const SerialPort& port) {
    return port.path == port.node ? port.path + "\n" : port.path + "  " + port.node + "\n";
  });
  text += FormatGroup("Accelerometers (pipeline.acc.bus, pipeline.acc.address)", devices.motionChips,
                      [](const MotionChip& chip) {
                        return fmt::format("/dev/i2c-{0}  bus {0}, address {1} ({1:#04x})\n", chip.bus, chip.address);
                      });
  text += FormatGroup("Accelerometers of the kernel (pipeline.acc.device)", devices.kernelSensors,
                      [](const KernelSensor& sensor) { return sensor.device + "  " + sensor.name + "\n"; });
  return text;
}

nlohmann::ordered_json ToJson(const DeviceList& devices) {
  using Json = nlohmann::ordered_json;
  Json json;
  json["cameras"] = json["soundCards"] = json["serialPorts"] = json["accelerometers"] = Json::array();
  for (const Camera& camera : devices.cameras) {
    Json modes = Json::array();
    for (const auto& [format, width, height, rates] : camera.modes) {
      modes.push_back({{"format", format}, {"width", width}, {"height", height}, {"rates", rates}});
    }
    json["cameras"].push_back(
        {{"device", camera.path}, {"name", camera.name}, {"driver", camera.driver}, {"modes", modes}});
  }
  for (const auto& [name, description] : devices.soundCards) {
    json["soundCards"].push_back({{"device", name}, {"name", description}});
  }
  for (const auto& [path, node] : devices.serialPorts) {
    json["serialPorts"].push_back({{"path", path}, {"node", node}});
  }
  for (const auto& [bus, address] : devices.motionChips) {
    json["accelerometers"].push_back({{"bus", bus}, {"address", address}});
  }
  json["kernelAccelerometers"] = nlohmann::ordered_json::array();
  for (const auto& [device, name] : devices.kernelSensors) {
    json["kernelAccelerometers"].push_back({{"device", device}, {"name", name}});
  }
  return json;
}

}  // namespace Tavi::Recorder::Devices
