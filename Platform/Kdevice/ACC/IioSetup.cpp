// Setting up an accelerometer of the kernel's Industrial I/O subsystem through its sysfs.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "Kdevice/ACC/IioSensor.h"

namespace Kdevice::ACC {
namespace {

namespace fs = std::filesystem;
using Ksystem::FileUtils::UniqueFd;

constexpr double RateHz = 100.0;
/// A sensor's 100 Hz may be written as 99.6, and its 4 g be 3.98 in whole numbers.
constexpr double Nearly = 0.97;
/// Standard gravity: the kernel counts in m/s².
constexpr double MetresPerSecond2 = 9.80665;
/// Some 1.3 s at 100 Hz.
constexpr const char* BufferRecords = "128";
constexpr const char* TimerName = "tavi";
constexpr std::array<const char*, 3> AxisChannels{"in_accel_x", "in_accel_y", "in_accel_z"};
constexpr const char* Timestamp = "in_timestamp";

/// Without its line end; empty when it cannot be read.
std::string ReadText(const std::string& path) {
  const UniqueFd file = UniqueFd::Open(path, O_RDONLY);
  std::array<char, 4096> block{};
  const ssize_t got = file.IsValid() ? ::read(file.Get(), block.data(), block.size()) : 0;
  std::string text(block.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
  text.erase(text.find_last_not_of(" \n") + 1);
  return text;
}

/// Empty, else what went wrong.
std::string WriteText(const std::string& path, const std::string& text) {
  const UniqueFd file = UniqueFd::Open(path, O_WRONLY | O_TRUNC);
  if (file.IsValid() && ::write(file.Get(), text.data(), text.size()) == static_cast<ssize_t>(text.size())) return {};
  const int error = errno;
  return fmt::format("cannot write \"{}\" into {}: {}", text, path, std::generic_category().message(error));
}

bool IsThere(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0;
}

std::vector<double> ReadNumbers(const std::string& path) {
  const std::string text = ReadText(path);
  std::vector<double> numbers;
  const char* at = text.c_str();
  while (*at != '\0') {
    char* end = nullptr;
    const double number = std::strtod(at, &end);
    if (end == at) {
      ++at;
      continue;
    }
    if (std::isfinite(number)) numbers.push_back(number);
    at = end;
  }
  return numbers;
}

std::vector<std::string> ListNames(const std::string& dir) {
  std::vector<std::string> names;
  std::error_code ignored;
  for (const auto& entry : fs::directory_iterator(dir, ignored)) names.push_back(entry.path().filename().string());
  std::ranges::sort(names);
  return names;
}

/// One sensor that is being set up; what goes wrong first is the fault.
class Sysfs {
 public:
  Sysfs(const IioPlaces& places, IioSetup& setup) : m_places(places), m_setup(setup) {}

  std::string SetUp(const std::string& wanted, int fullScaleG) {
    std::string fault = Find(wanted);
    if (fault.empty()) fault = Stop();
    if (fault.empty()) ChooseRate();
    if (fault.empty()) fault = ChooseTrigger();
    if (fault.empty()) fault = ChooseScale(fullScaleG);
    if (fault.empty()) fault = EnableChannels();
    if (fault.empty()) fault = ReadLayout();
    if (fault.empty()) fault = StartBuffer();
    return fault;
  }

 private:
  [[nodiscard]] std::string Path(const std::string& file) const { return m_dir + file; }
  /// Of several names of one file the one that is there; empty when none is.
  [[nodiscard]] std::string FindFile(std::initializer_list<std::string> names) const {
    const auto* const found =
        std::ranges::find_if(names, [this](const std::string& name) { return IsThere(Path(name)); });
    return found == names.end() ? "" : Path(*found);
  }

  std::string Find(const std::string& wanted) {
    std::string known;
    for (const std::string& device : ListNames(m_places.devices)) {
      if (!device.starts_with("iio:device")) continue;
      m_dir = m_places.devices + device + "/";
      const std::string name = ReadText(Path("name"));
      if (device == wanted || name == wanted || ReadText(Path("label")) == wanted) {
        m_setup.device = device;
        m_setup.name = name;
        return {};
      }
      known += (known.empty() ? "" : ", ") + device + " (" + name + ")";
    }
    return "the kernel drives no sensor " + wanted + (known.empty() ? "" : "; it has " + known);
  }

  std::string Stop() const {
    for (const char* axis : AxisChannels) {
      if (IsThere(Path(fmt::format("scan_elements/{}_en", axis)))) continue;
      return fmt::format("{} is no accelerometer of three axes with a buffer: it has no scan_elements/{}_en",
                         m_setup.device, axis);
    }
    return WriteText(Path("buffer/enable"), "0");
  }

  /// The lowest rate that is enough, else the highest; a driver without a choice keeps its own.
  void ChooseRate() {
    const std::string file = FindFile({"sampling_frequency", "in_accel_sampling_frequency"});
    if (file.empty()) return;
    const std::string list = FindFile({"sampling_frequency_available", "in_accel_sampling_frequency_available"});
    auto rates = list.empty() ? std::vector<double>() : ReadNumbers(list);
    // A range is written as [first step last].
    if (!list.empty() && ReadText(list).starts_with('[')) rates = {RateHz};
    std::ranges::sort(rates);
    const auto enough = std::ranges::find_if(rates, [](double rate) { return rate >= RateHz * Nearly; });
    const double chosen = rates.empty() ? RateHz : enough == rates.end() ? rates.back() : *enough;
    // Some drivers have it read only.
    static_cast<void>(WriteText(file, fmt::format("{}", chosen)));
    const auto numbers = ReadNumbers(file);
    if (!numbers.empty()) m_setup.rateHz = numbers.front();
  }

  /// A driver whose chip has no memory of its own is told by a trigger when to take a sample: by the chip's own, or by
  /// a timer.
  std::string ChooseTrigger() {
    const std::string current = Path("trigger/current_trigger");
    if (!IsThere(current) || !ReadText(current).empty()) return {};
    for (const std::string& entry : ListNames(m_places.devices)) {
      if (!entry.starts_with("trigger")) continue;
      const std::string name = ReadText(m_places.devices + entry + "/name");
      // "mma8452-dev0": the driver's name, and the device's number.
      if (name == m_setup.name + "-dev" + m_setup.device.substr(m_setup.device.find_first_of("0123456789"))) {
        return WriteText(current, name);
      }
    }
    return UseTimer(current);
  }

  std::string UseTimer(const std::string& current) {
    const std::string timer = m_places.timers + TimerName;
    if (::mkdir(timer.c_str(), 0755) != 0 && errno != EEXIST) {
      const int error = errno;
      return fmt::format("{} has no trigger of its own, and none can be made in {} ({}): load iio-trig-hrtimer",
                         m_setup.device, m_places.timers, std::generic_category().message(error));
    }
    for (const std::string& entry : ListNames(m_places.devices)) {
      const std::string dir = m_places.devices + entry + "/";
      if (!entry.starts_with("trigger") || ReadText(dir + "name") != TimerName) continue;
      std::string fault = WriteText(dir + "sampling_frequency", fmt::format("{}", RateHz));
      if (fault.empty()) m_setup.rateHz = RateHz;
      return fault.empty() ? WriteText(current, TimerName) : fault;
    }
    return fmt::format("{} has no trigger of its own, and the timer in {} is none", m_setup.device, m_places.timers);
  }

  std::string ChooseScale(int fullScaleG) {
    const std::string bits = ReadText(Path(fmt::format("scan_elements/{}_type", AxisChannels[0])));
    const auto field = IioField::Parse(bits);
    if (!field) return fmt::format("{} has values of the form \"{}\", which is not known", m_setup.device, bits);
    const double steps = std::ldexp(1.0, static_cast<int>(field->bits) - (field->isSigned ? 1 : 0));
    const auto toRange = [steps](double scale) { return scale * steps / MetresPerSecond2; };
    const std::string file = FindFile({"in_accel_scale", "in_accel_x_scale"});
    if (file.empty()) return m_setup.device + " does not tell its scale (in_accel_scale)";
    const std::string list = FindFile({"in_accel_scale_available", "in_accel_x_scale_available", "scale_available"});
    auto scales = list.empty() ? std::vector<double>() : ReadNumbers(list);
    std::ranges::sort(scales);
    const auto enough = std::ranges::find_if(scales, [&](double s) { return toRange(s) >= fullScaleG * Nearly; });
    if (!scales.empty()) {
      // Nine decimals are what drivers read at most.
      std::string fault = WriteText(file, fmt::format("{:.9f}", enough == scales.end() ? scales.back() : *enough));
      if (!fault.empty()) return fault;
    }
    for (std::size_t i = 0; i < AxisChannels.size(); ++i) {
      const std::string axis = AxisChannels[i];
      const auto scale = ReadNumbers(FindFile({axis + "_scale", "in_accel_scale"}));
      const auto offset = ReadNumbers(FindFile({axis + "_offset", "in_accel_offset"}));
      if (scale.empty() || !(scale[0] > 0.0)) return "cannot read a scale out of " + file;
      m_setup.scale[i] = scale[0] / MetresPerSecond2;
      m_setup.offset[i] = offset.empty() ? 0.0 : offset[0];
    }
    m_setup.rangeG = m_setup.scale[0] * steps;
    ReadMountMatrix();
    return {};
  }

  void ReadMountMatrix() {
    const std::string file = FindFile({"in_accel_mount_matrix", "in_mount_matrix", "mount_matrix"});
    const auto numbers = file.empty() ? std::vector<double>() : ReadNumbers(file);
    if (numbers.size() != 9) return;
    for (std::size_t i = 0; i < numbers.size(); ++i) m_setup.mountMatrix[i / 3][i % 3] = static_cast<float>(numbers[i]);
  }

  std::string EnableChannels() const {
    constexpr std::string_view Suffix = "_en";
    for (const std::string& name : ListNames(Path("scan_elements"))) {
      if (!name.ends_with(Suffix)) continue;
      const std::string channel = name.substr(0, name.size() - Suffix.size());
      const bool isWanted = channel == Timestamp || std::ranges::find(AxisChannels, channel) != AxisChannels.end();
      std::string fault = WriteText(Path("scan_elements/" + name), isWanted ? "1" : "0");
      // Some drivers deliver what nobody asked for: the layout shows it.
      if (isWanted && channel != Timestamp && !fault.empty()) return fault;
    }
    return {};
  }

  /// Each value stands where its own size is a divisor of the place, and so does the record (kernel documentation,
  /// "Buffers").
  std::string ReadLayout() {
    std::vector<std::pair<std::string, IioField>> fields;
    for (const std::string& name : ListNames(Path("scan_elements"))) {
      if (!name.ends_with("_en") || ReadText(Path("scan_elements/" + name)) != "1") continue;
      const std::string channel = name.substr(0, name.size() - 3);
      const std::string type = ReadText(Path("scan_elements/" + channel + "_type"));
      auto field = IioField::Parse(type);
      if (!field) return fmt::format("{} of {} has the form \"{}\", which is not known", channel, m_setup.device, type);
      field->index = std::atoi(ReadText(Path("scan_elements/" + channel + "_index")).c_str());
      fields.emplace_back(channel, *field);
    }
    std::ranges::sort(fields, {}, [](const auto& field) { return field.second.index; });
    std::size_t end = 0;
    std::size_t largest = 1;
    const auto align = [](std::size_t at, std::size_t to) { return (at + to - 1) / to * to; };
    for (auto& [channel, field] : fields) {
      field.offset = align(end, field.bytes);
      end = field.offset + field.bytes;
      largest = std::max<std::size_t>(largest, field.bytes);
      for (std::size_t i = 0; i < AxisChannels.size(); ++i) {
        if (channel == AxisChannels[i]) m_setup.axes[i] = field;
      }
      if (channel == Timestamp) m_setup.timestamp = field;
    }
    m_setup.recordBytes = align(end, largest);
    const bool isComplete = std::ranges::all_of(m_setup.axes, [](const IioField& field) { return field.bytes > 0; });
    return isComplete ? "" : m_setup.device + " does not deliver all of its axes";
  }

  std::string StartBuffer() const {
    // An older kernel has one clock only, the one that is set; what it jumps by is a gap.
    static_cast<void>(WriteText(Path("current_timestamp_clock"), "monotonic"));
    static_cast<void>(WriteText(Path("buffer/length"), BufferRecords));
    // Awake once a block where the driver can wait for one.
    static_cast<void>(WriteText(Path("buffer/watermark"), m_setup.rateHz >= RateHz * Nearly ? "10" : "1"));
    return WriteText(Path("buffer/enable"), "1");
  }

  const IioPlaces& m_places;
  IioSetup& m_setup;
  std::string m_dir;
};

}  // namespace

std::string SetUpIio(const IioPlaces& places, const std::string& wanted, int fullScaleG, IioSetup& setup) {
  return Sysfs(places, setup).SetUp(wanted, fullScaleG);
}

void StopIio(const IioPlaces& places, const IioSetup& setup) {
  // One that is gone needs no stop.
  static_cast<void>(WriteText(places.devices + setup.device + "/buffer/enable", "0"));
}

}  // namespace Kdevice::ACC
