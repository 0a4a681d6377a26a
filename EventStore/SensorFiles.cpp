// The sensor files of an event, read back into records along the event's time line.
#include "EventStore/SensorFiles.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "Kbase/Json/Json.h"
#include "Kbase/UtilAcc/UtilAcc.h"
#include "Tavi/Accel/AccDataPak.h"
#include "Tavi/Gps/FixQuality.h"
#include "Tavi/Gps/GPSDataPackage.h"
#include "Tavi/Gps/GPSLine.h"
#include "Tavi/PipelineCollect/EntryTimes.h"

namespace Tavi::EventTools {
namespace {

constexpr std::size_t LengthBytes = 4;
constexpr std::size_t Axes = 3;
static_assert(SamplesOfBlock == Accel::AccDataPak::BlockBytes / Axes);
constexpr int RmcMode = 12;
/// What the upright axis reads in the file at rest.
constexpr double RestG = 1.0;

/// Cuts a file into its entries: four bytes of length, the least significant first, and as many bytes.
class EntryCutter {
 public:
  explicit EntryCutter(std::string_view bytes) : m_rest(bytes) {}

  /// False at the end and at the first entry that is not whole or not of a length from `low` to `high`.
  bool Next(std::size_t low, std::size_t high) {
    if (m_rest.empty()) return false;
    std::uint32_t length = 0;
    if (m_rest.size() < LengthBytes) return Stop("is cut off");
    for (std::size_t i = 0; i < LengthBytes; ++i) {
      length |= static_cast<std::uint32_t>(static_cast<unsigned char>(m_rest[i])) << (8 * i);
    }
    if (length < low || length > high) return Stop(fmt::format("cannot be {} bytes long", length));
    if (m_rest.size() - LengthBytes < length) return Stop("is cut off");
    m_content = m_rest.substr(LengthBytes, length);
    m_rest.remove_prefix(LengthBytes + length);
    ++m_count;
    return true;
  }
  [[nodiscard]] std::string_view GetContent() const { return m_content; }
  /// Position of the present entry, counted from 0.
  [[nodiscard]] std::size_t GetIndex() const { return m_count - 1; }
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }

 private:
  bool Stop(const std::string& what) {
    m_problem = fmt::format("entry {} {}", m_count + 1, what);
    return false;
  }

  std::string_view m_rest;
  std::string_view m_content;
  std::size_t m_count = 0;
  std::string m_problem;
};

bool IsOnEarth(const Gps::GpsData& data) {
  return data.std_lat[0] != '\0' && data.std_long[0] != '\0' && std::fabs(data.latitude) <= 90.0 &&
         std::fabs(data.longitude) <= 180.0 && data.speed >= 0.0;
}

/// False when `sentence` is none that a receiver's fix is made of.
bool ReadFix(std::string_view sentence, Fix& fix) {
  std::string text(sentence);
  const Gps::GPSLine line(text.data());
  if (line.GetLineType() != Gps::GPS_LINE_GPRMC && line.GetLineType() != Gps::GPS_LINE_GNRMC) return false;
  Gps::GPSDataPackage package;
  package.Load(line);
  const Gps::GpsData& data = *package.GetData();
  if (data.isValidPackage == 0 || !IsOnEarth(data)) return true;
  fix.isValid = true;
  fix.utcMs = Gps::GPSDataPackage::GetUtcMs(data).value_or(0);
  fix.latitude = data.latitude;
  fix.longitude = data.longitude;
  fix.speedKnots = data.speed;
  fix.courseDegrees = data.course;
  // Positioning mode: differential, fixed or floating ambiguities (NMEA 0183 since 2.3).
  const auto mode = line.ViewElement(RmcMode);
  fix.isDifferential = mode == "D" || mode == "R" || mode == "F";
  return true;
}

/// What the receiver's companion has of a fix. Damage leaves a fix without it.
void ReadQuality(std::string_view note, Fix& fix) {
  const auto quality = Gps::ParseFixQuality(note);
  fix.hdop = quality.hdop;
  fix.satellites = quality.satellites;
  fix.altitudeMetres = quality.altitudeMetres;
}

/// The number called `name`, empty when there is none from `low` to 255, the highest that a sample holds.
std::optional<int> ReadMetric(const nlohmann::ordered_json& object, const char* name, int low) {
  const auto found = object.find(name);
  if (found == object.end() || !found->is_number()) return std::nullopt;
  const double value = found->get<double>();
  if (!(value >= low && value <= 255.0)) return std::nullopt;
  return static_cast<int>(std::lround(value));
}

/// The file has the low eight bits, and 0 where the temperature was not known: 251 is five degrees below zero.
std::optional<int> ReadTemperature(const nlohmann::ordered_json& object) {
  const auto bits = ReadMetric(object, "temperature", 1);
  return bits && *bits > 127 ? *bits - 256 : bits;
}

/// The array, that of the whole objects of a file that is cut off, or something that is no array.
nlohmann::ordered_json ParseArray(std::string_view bytes, std::string& problem) {
  auto json = Kbase::Json::Parse(bytes);
  if (json.is_array()) return json;
  problem = json.is_discarded() ? "it is cut off or damaged" : "it is no array of samples";
  const std::string whole = std::string(bytes.substr(0, bytes.rfind('}') + 1)) + "]";
  return Kbase::Json::Parse(whole);
}

}  // namespace

double GetEntrySeconds(const TimeBase& base, std::size_t index, double part) {
  if (base.seconds.empty()) return base.fromSeconds + (static_cast<double>(index) + part) / base.rate;
  const std::size_t known = std::min(index, base.seconds.size() - 1);
  return base.seconds[known] + (static_cast<double>(index - known) + part) / base.rate;
}

void ReadCompanion(std::string_view companion, TimeBase& base) {
  const auto times = PipelineCollect::ParseTimes(companion);
  if (!times) return;
  base.seconds = times->GetSeconds();
  base.notes.clear();
  for (const auto& entry : times->entries) base.notes.push_back(entry.note);
}

SensorRecords<Fix> ParseGps(std::string_view bytes, const TimeBase& base) {
  SensorRecords<Fix> result;
  EntryCutter entries(bytes);
  while (entries.Next(0, sizeof(Gps::GpsData::gprmc_line) - 1)) {
    Fix fix;
    fix.secondsFromEvent = GetEntrySeconds(base, entries.GetIndex());
    if (!entries.GetContent().empty() && !ReadFix(entries.GetContent(), fix) && result.problem.empty()) {
      result.problem = fmt::format("entry {} is no RMC sentence", entries.GetIndex() + 1);
    }
    if (fix.isValid && entries.GetIndex() < base.notes.size()) ReadQuality(base.notes[entries.GetIndex()], fix);
    result.records.push_back(fix);
  }
  if (result.problem.empty()) result.problem = entries.GetProblem();
  return result;
}

SensorRecords<AccSample> ParseAcc(std::string_view bytes, const TimeBase& base, int fullScaleG) {
  const auto scale = static_cast<unsigned char>(fullScaleG);
  SensorRecords<AccSample> result;
  EntryCutter entries(bytes);
  while (entries.Next(Accel::AccDataPak::BlockBytes, Accel::AccDataPak::BlockBytes)) {
    for (std::size_t i = 0; i < SamplesOfBlock; ++i) {
      AccSample sample;
      const double part = static_cast<double>(i) / static_cast<double>(SamplesOfBlock);
      sample.secondsFromEvent = GetEntrySeconds(base, entries.GetIndex(), part);
      for (std::size_t axis = 0; axis < Axes; ++axis) {
        const auto native = static_cast<unsigned char>(entries.GetContent()[i * Axes + axis]);
        const double g = static_cast<double>(Kbase::UtilAcc::AccNativeToFloat(native, scale));
        sample.g[axis] = axis == 0 ? g - RestG : g;
      }
      result.records.push_back(sample);
    }
  }
  result.problem = entries.GetProblem();
  return result;
}

SensorRecords<MetricSample> ParseOther(std::string_view bytes, const TimeBase& base) {
  SensorRecords<MetricSample> result;
  const nlohmann::ordered_json array = ParseArray(bytes, result.problem);
  if (!array.is_array()) return result;
  for (const auto& object : array) {
    MetricSample sample;
    sample.secondsFromEvent = GetEntrySeconds(base, result.records.size());
    sample.cpuPercent = ReadMetric(object, "cpu_usage", 0);
    sample.temperatureCelsius = ReadTemperature(object);
    if (!sample.cpuPercent && !sample.temperatureCelsius && result.problem.empty()) {
      result.problem = fmt::format("entry {} is no sample", result.records.size() + 1);
    }
    result.records.push_back(sample);
  }
  return result;
}

}  // namespace Tavi::EventTools
