// What is written down of an event that was interrupted.
#include "Recorder/Service/RecoveredEvent.h"

#include <algorithm>
#include <cmath>
#include <set>
#include <string_view>
#include <utility>

#include "EventStore/EventName.h"
#include "EventStore/SensorFiles.h"
#include "EventStore/Storage.h"
#include "Recorder/MediaLength.h"
#include "Recorder/Service/EventOrder.h"
#include "Recorder/Service/EventRecord.h"
#include "Recorder/Service/MissingParts.h"
#include "Recorder/Version.h"
#include "Tavi/PipelineCollect/EntryTimes.h"

namespace Tavi::Recorder {
namespace {

using EventStore::EventDescription;
using EventStore::RequestNote;
using EventStore::StreamWindow;
using PipelineCollect::PipelineCollectType;
using RecoveryCollect::RecoveredEvent;

constexpr std::string_view CrashPrefix = "crash-";
/// Names tell whole seconds, and a window begins with a key frame.
constexpr double Inexact = 2.0;
/// So much later the recorded time begins where the rings were still empty.
constexpr double LongestRing = 32.0;
/// Far more than the longest window's.
constexpr std::size_t MaxSensorBytes = 4'000'000;

/// When what was recorded of the event begins, Unix time in seconds.
double GetRecordedFrom(const RecoveredEvent& recovered) {
  return static_cast<double>(recovered.output.eventTime) - recovered.seconds;
}

/// How much later that is than what `request` has asked for; infinite when they do not belong together.
double MeasureDelay(const RecoveredEvent& recovered, const EventDescription& request) {
  // Names of files go by the system's clock.
  const double moment = static_cast<double>(EventStore::GetSystemTimeMs(request)) / 1000.0;
  const double delay = GetRecordedFrom(recovered) - (moment + request.startSeconds);
  const bool isPossible = recovered.seconds > 0 && delay >= -Inexact && delay <= LongestRing &&
                          moment <= static_cast<double>(recovered.output.eventTime) + Inexact;
  return isPossible ? std::fabs(delay) : INFINITY;
}

/// Where the streams begin on the event's time line; empty when that is not known.
std::optional<double> FindFrom(const RecoveredEvent& recovered, const std::optional<RequestNote>& note) {
  if (!note) return recovered.seconds > 0 ? std::optional(-static_cast<double>(recovered.seconds)) : std::nullopt;
  const double asked = note->request.startSeconds;
  const double delay = MeasureDelay(recovered, note->request);
  return std::isfinite(delay) && delay > Inexact ? asked + std::round(delay * 1000.0) / 1000.0 : asked;
}

/// Fills in what the files of an event tell.
class FileReader {
 public:
  FileReader(EventDescription& event, const Pipeline::PipelineConfig& config) : m_event(event), m_config(config) {}

  /// Moves the streams of which nothing tells when they were to `from`; empty: so that the longest ends with the
  /// event's moment.
  void Place(std::optional<double> from) {
    double longest = 0.0;
    for (const auto& stream : m_event.streams) longest = std::max(longest, stream.toSeconds);
    for (auto& stream : m_event.streams) {
      if (!m_unplaced.contains(stream.type)) continue;
      stream.fromSeconds = from.value_or(-longest);
      stream.toSeconds += stream.fromSeconds;
    }
  }
  [[nodiscard]] bool IsAllPlaced() const { return m_unplaced.empty(); }

  void Read(PipelineCollectType type, const std::string& path) {
    switch (type) {
      case PipelineCollectType::VideoCamera0:
      case PipelineCollectType::VideoCamera1:
      case PipelineCollectType::Audio:
        if (const auto length = TryMediaLength(path)) AddMedia(type, *length, path);
        break;
      case PipelineCollectType::Gps:
        ReadGps(path);
        break;
      case PipelineCollectType::Acc:
        ReadAcc(path);
        break;
      case PipelineCollectType::Other:
        AddStream(type, EventTools::ParseOther(ReadFile(path), {}).records.size(), m_config.other.rate, path);
        break;
      default:
        break;
    }
  }

 private:
  /// Once more where the disk fails.
  static std::optional<MediaLength> TryMediaLength(const std::string& path) {
    auto length = ReadMediaLength(path);
    if (length) return length;
    EventStore::LogWarning("cannot tell how long " + path + " is: trying once more");
    return ReadMediaLength(path);
  }

  static std::string ReadFile(const std::string& path) {
    std::string content;
    std::string problem;
    if (!EventStore::ReadSmallFile(path, MaxSensorBytes, content, problem)) EventStore::LogWarning(problem);
    return content;
  }

  void AddMedia(PipelineCollectType type, const MediaLength& length, const std::string& path) {
    if (length.seconds > 0.0) AddStream(type, length.frames, static_cast<double>(length.frames) / length.seconds, path);
  }

  void ReadGps(const std::string& path) {
    const auto gps = EventTools::ParseGps(ReadFile(path), {});
    AddStream(PipelineCollectType::Gps, gps.records.size(), m_config.gps.rate, path);
    for (const auto& fix : gps.records) {
      if (fix.isValid) m_event.maxSpeedKnots = std::max(m_event.maxSpeedKnots.value_or(0.0), fix.speedKnots);
    }
  }

  void ReadAcc(const std::string& path) {
    const auto acc = EventTools::ParseAcc(ReadFile(path), {}, m_event.accScaleG);
    AddStream(PipelineCollectType::Acc, acc.records.size() / EventTools::SamplesOfBlock, m_config.acc.rate, path);
    for (const auto& sample : acc.records) {
      for (const double g : sample.g) m_event.maxG = std::max(m_event.maxG.value_or(0.0), std::fabs(g));
    }
  }

  /// Where no companion tells, from 0 on: Place moves it.
  void AddStream(PipelineCollectType type, std::uint64_t entries, double rate, const std::string& path) {
    if (entries == 0 || !(rate > 0.0)) return;
    StreamWindow stream;
    stream.type = GetPipelineCollectTypeName(type);
    stream.entries = entries;
    stream.rate = rate;
    stream.toSeconds = static_cast<double>(entries - 1) / rate;
    if (!PlaceByTimes(stream, path)) m_unplaced.insert(stream.type);
    m_event.streams.push_back(std::move(stream));
  }

  /// Of a stream that was cut the companion may tell more, or less, than there is.
  static bool PlaceByTimes(StreamWindow& stream, const std::string& path) {
    const auto times = PipelineCollect::ReadTimesOf(path);
    if (!times || times->entries.empty() || !(times->rate > 0.0)) return false;
    const auto seconds = times->GetSeconds();
    const std::size_t last = std::min<std::size_t>(stream.entries, seconds.size()) - 1;
    const auto toSigned = [](const std::optional<std::uint64_t>& ns) {
      return ns ? std::optional(static_cast<std::int64_t>(*ns)) : std::nullopt;
    };
    stream.rate = times->rate;
    stream.fromSeconds = seconds.front();
    stream.toSeconds = seconds[last] + static_cast<double>(stream.entries - 1 - last) / times->rate;
    stream.firstTimestampNs = toSigned(times->entries.front().timestampNs);
    stream.lastTimestampNs = toSigned(times->entries[last].timestampNs);
    return true;
  }

  EventDescription& m_event;
  const Pipeline::PipelineConfig& m_config;
  std::set<std::string> m_unplaced;
};

/// The moment and the window of an event whose request is unknown, by what its streams tell of them: power failed, or
/// the process died, when the last of them ended.
void GuessRequest(EventDescription& event) {
  double from = 0.0;
  double to = 0.0;
  for (const auto& stream : event.streams) {
    from = std::min(from, stream.fromSeconds);
    to = std::max(to, stream.toSeconds);
  }
  event.timeMs -= std::llround(to * 1000.0);
  event.startSeconds = static_cast<int>(std::floor(from));
  event.durationSeconds = static_cast<int>(std::ceil(to - from));
}

/// What the streams lack of what was asked for, as far as they were saved.
std::vector<EventStore::MissingPart> FindCut(const RecoveredEvent& recovered, const EventDescription& event) {
  EventOrder order;
  order.beforeSeconds = -event.startSeconds;
  order.durationSeconds = event.durationSeconds;
  PipelineCollect::PipelineCollectOutput saved;
  std::set<PipelineCollectType> types;
  for (const auto& [type, path] : recovered.output.outputs) {
    const std::string name = GetPipelineCollectTypeName(type);
    const auto stream = std::ranges::find(event.streams, name, &StreamWindow::type);
    if (stream == event.streams.end()) continue;
    saved.outputs[type] = path;
    PipelineCollect::CollectedWindow& window = saved.windows[type];
    window.fromSeconds = stream->fromSeconds;
    window.toSeconds = stream->toSeconds;
    window.entries = stream->entries;
    window.fps = static_cast<float>(stream->rate);
    types.insert(type);
  }
  return FindMissing(order, types, saved);
}

}  // namespace

std::string BuildCrashName(const std::string& id) {
  return std::string(CrashPrefix) + id;
}

std::string GetInterruptedId(const std::string& name) {
  const std::string rest = name.starts_with(CrashPrefix) ? name.substr(CrashPrefix.size()) : name;
  std::string id = rest.substr(0, rest.find('_'));
  return EventStore::IsEventId(id) ? id : EventStore::BuildEventId(name);
}

std::optional<RequestNote> TakeNote(const RecoveredEvent& recovered, std::vector<RequestNote>& notes) {
  const std::string id = GetInterruptedId(recovered.name);
  const auto found =
      std::find_if(notes.begin(), notes.end(), [&id](const RequestNote& note) { return note.request.id == id; });
  if (found == notes.end()) return std::nullopt;
  RequestNote note = std::move(*found);
  notes.erase(found);
  return note;
}

EventDescription DescribeRecovered(const RecoveredEvent& recovered, const std::optional<RequestNote>& note,
                                   const Pipeline::PipelineConfig& config, const EventStore::CameraNames& cameraNames) {
  EventDescription event;
  if (note) {
    event = note->request;
  } else {
    event.id = GetInterruptedId(recovered.name);
    event.label = recovered.name;
    event.trigger = "recovery";
    event.accScaleG = config.acc.scale;
    event.cameraNames = cameraNames;
    event.timeMs = recovered.output.eventTime * 1000;
    // The failure is the moment that is known; what was recorded lies before it.
    event.startSeconds = -static_cast<int>(recovered.seconds);
    event.durationSeconds = static_cast<int>(recovered.seconds);
  }
  event.software = Version;
  event.interrupted = true;
  FileReader reader(event, config);
  for (const auto& [type, path] : recovered.output.outputs) reader.Read(type, path);
  if (!note && reader.IsAllPlaced() && !event.streams.empty()) {
    GuessRequest(event);
  } else {
    reader.Place(FindFrom(recovered, note));
  }
  if (note) event.missing = FindCut(recovered, event);
  return event;
}

}  // namespace Tavi::Recorder
