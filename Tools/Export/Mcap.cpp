// All of an event as one MCAP file.
#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>

#include "EventStore/Chain.h"
#include "EventStore/EventName.h"
#include "EventStore/PartName.h"
#include "Tools/Export/Clip.h"
#include "Tools/Export/Formats.h"
#include "Tools/Export/McapEvent.h"
#include "Tools/Export/McapSchemas.h"
#include "Tools/Mcap/ProtoMessage.h"

namespace Tavi::EventTools {
namespace {

using Mcap::ProtoMessage;

/// Far more than a still or two minutes of sound have.
constexpr std::size_t MaxAttachedBytes = 50'000'000;
/// What a description may have (EventStore/EventDescription.h); a signature has 64.
constexpr std::size_t MaxDescriptionBytes = 1U << 20U;

/// What an event has of a camera, and its topics' name: by the settings' number, as the types are not.
struct Camera {
  const char* topic;
  const char* clip;
  const char* still;
};
constexpr Camera Cameras[] = {{"/camera0", "VideoCamera1", "ThumbnailCamera1"},
                              {"/camera1", "VideoCamera0", "ThumbnailCamera0"}};

void AddLine(McapEvent& event, double seconds, LogLevel level, std::string_view name, std::string_view line) {
  using namespace Fields::Log;
  const auto ns = event.GetTimeNs(seconds);
  ProtoMessage message;
  message.AddTimestamp(Timestamp, ns).AddInteger(Level, static_cast<int>(level));
  event.Add("/log", LogSchema, ns, message.AddBytes(Message, line).AddBytes(Name, name).Get());
}

void AddFrame(McapEvent& event, const std::string& topic, double seconds, std::string_view frameId,
              std::string_view bytes) {
  using namespace Fields::Video;
  const auto ns = event.GetTimeNs(seconds);
  ProtoMessage message;
  message.AddTimestamp(Timestamp, ns).AddBytes(FrameId, frameId).AddBytes(Data, bytes).AddBytes(Format, "h264");
  event.Add(topic, VideoSchema, ns, message.Get());
}

/// A stream is there where the clip could not be made; when its frames were, its companion tells.
void AddVideo(McapEvent& event, EventData& data, const Camera& camera) {
  const std::string streamType = std::string(camera.clip) + "Stream";
  const auto* clip = FindFile(data.description, camera.clip);
  const auto* file = clip != nullptr ? clip : FindFile(data.description, streamType);
  if (file == nullptr) return;
  const bool isStream = clip == nullptr;
  const TimeBase base =
      isStream ? LoadTimeBase(data, camera.clip, 1.0) : GetTimeBase(data.description, camera.clip, 1.0);
  const std::string name = EventStore::GetPartName(camera.clip, data.description.cameraNames);
  const auto take = [&](const ClipFrame& frame) {
    const double seconds = isStream ? GetEntrySeconds(base, frame.index) : base.fromSeconds + frame.seconds;
    AddFrame(event, std::string(camera.topic) + "/video", seconds, name, frame.bytes);
  };
  const auto form = isStream ? ClipForm::Stream : ClipForm::Mp4;
  AddProblem(data, ReadClip(data.directory + "/" + file->name, form, take));
}

void AddStill(McapEvent& event, EventData& data, const Camera& camera) {
  using namespace Fields::Image;
  std::string content;
  std::string problem;
  if (ReadEventFile(data, camera.still, MaxAttachedBytes, content, problem)) {
    const auto ns = event.GetTimeNs(0.0);
    ProtoMessage message;
    message.AddTimestamp(Timestamp, ns).AddBytes(Data, content).AddBytes(Format, "jpeg");
    message.AddBytes(FrameId, EventStore::GetPartName(camera.clip, data.description.cameraNames));
    event.Add(std::string(camera.topic) + "/still", ImageSchema, ns, message.Get());
  }
  AddProblem(data, std::move(problem));
}

/// Nothing but a horizontal dilution of precision is known: the error of a range is taken to be that of a receiver of
/// one frequency, 7.1 m (one standard deviation; Kaplan and Hegarty, Understanding GPS, 2nd edition, chapter 7), to be
/// the same to the north and to the east, and twice that of both in height: the dilutions differ by 1.5 in the mean
/// (Milbert, Dilution of precision revisited, NAVIGATION, 2008).
std::array<double, 9> EstimateCovariance(double hdop) {
  constexpr double RangeErrorMetres = 7.1;
  constexpr double HeightFactor = 2.0;
  const double horizontal = std::pow(hdop * RangeErrorMetres, 2.0);
  std::array<double, 9> covariance{};
  covariance[0] = covariance[4] = horizontal / 2.0;
  covariance[8] = horizontal * HeightFactor * HeightFactor;
  return covariance;
}

void AddFix(McapEvent& event, const Fix& fix) {
  using namespace Fields::LocationFix;
  const auto ns = event.GetTimeNs(fix.secondsFromEvent);
  ProtoMessage message;
  message.AddDouble(Latitude, fix.latitude).AddDouble(Longitude, fix.longitude);
  // 0 would be a height; what is not there is said by no number.
  message.AddDouble(Altitude, fix.altitudeMetres.value_or(std::numeric_limits<double>::quiet_NaN()));
  message.AddDoubles(Covariance, fix.hdop ? EstimateCovariance(*fix.hdop) : std::array<double, 9>{});
  const auto type = fix.hdop ? CovarianceType::Approximated : CovarianceType::Unknown;
  message.AddInteger(Fields::LocationFix::CovarianceType, static_cast<int>(type));
  message.AddTimestamp(Timestamp, ns).AddBytes(FrameId, "gps");
  event.Add("/gps/fix", FixSchema, ns, message.Get());
}

void AddMotion(McapEvent& event, const Fix& fix) {
  using namespace Fields::Motion;
  constexpr std::int64_t NsPerMs = 1'000'000;
  const auto ns = event.GetTimeNs(fix.secondsFromEvent);
  ProtoMessage message;
  message.AddTimestamp(Timestamp, ns).AddDouble(SpeedKnots, fix.speedKnots).AddDouble(CourseDegrees, fix.courseDegrees);
  message.AddTimestamp(ReceiverTime, static_cast<std::uint64_t>(std::max<std::int64_t>(fix.utcMs, 0) * NsPerMs));
  if (fix.hdop) message.AddDouble(Hdop, *fix.hdop);
  if (fix.satellites) message.AddInteger(Satellites, *fix.satellites);
  event.Add("/gps/motion", MotionSchema, ns, message.Get());
}

void AddSensors(McapEvent& event, const EventData& data) {
  for (const Fix& fix : data.gps.records) {
    if (!fix.isValid) continue;
    AddFix(event, fix);
    AddMotion(event, fix);
  }
  for (const auto& [seconds, g] : data.acc.records) {
    using namespace Fields::Acceleration;
    const auto ns = event.GetTimeNs(seconds);
    ProtoMessage message;
    message.AddTimestamp(Timestamp, ns).AddDouble(X, g[0]).AddDouble(Y, g[1]).AddDouble(Z, g[2]);
    event.Add("/acceleration", AccelerationSchema, ns, message.Get());
  }
  for (const auto& [seconds, cpu, temperature] : data.other.records) {
    using namespace Fields::Machine;
    const auto ns = event.GetTimeNs(seconds);
    ProtoMessage message;
    message.AddTimestamp(Timestamp, ns);
    if (cpu) message.AddInteger(CpuPercent, *cpu);
    if (temperature) message.AddInteger(TemperatureCelsius, *temperature);
    event.Add("/machine", MachineSchema, ns, message.Get());
  }
}

/// MP3 is no message that there is a schema of: it goes along as the file it is.
void AddSound(McapEvent& event, EventData& data) {
  const auto* file = FindFile(data.description, "Audio");
  if (!event.AttachFile(data, "Audio", "audio/mpeg", MaxAttachedBytes)) return;
  const auto* stream = FindStream(data.description, "Audio");
  AddLine(event, 0.0, LogLevel::Info, "tavi-export",
          fmt::format("sound: attached as {}, which begins {:.3f} s from the event", file->name,
                      stream != nullptr ? stream->fromSeconds : data.description.startSeconds));
}

void AddNotes(McapEvent& event, const EventData& data) {
  const auto& description = data.description;
  const auto add = [&](LogLevel level, const std::string& line) {
    AddLine(event, 0.0, level, description.software, line);
  };
  add(LogLevel::Info,
      fmt::format("{}: {}, time by the {}", GetTitle(description), description.trigger, description.timeSource));
  if (!data.laterLabel.empty()) add(LogLevel::Info, "written later: " + data.laterLabel);
  if (description.interrupted) add(LogLevel::Warning, "ended early, or recovered after it was interrupted");
  for (const auto& part : description.missing) {
    add(LogLevel::Warning,
        fmt::format("{}: {}", EventStore::GetPartName(part.type, description.cameraNames), part.reason));
  }
  if (description.seal) {
    add(LogLevel::Info,
        fmt::format("signed as event {} with the key {}", description.seal->sequence, description.seal->publicKey));
  } else {
    add(LogLevel::Warning, "nobody has signed this event");
  }
}

/// Behind everything else: every problem is known by then.
void AddProblems(McapEvent& event, const EventData& data) {
  for (const auto& problem : data.problems) AddLine(event, 0.0, LogLevel::Error, "tavi-export", problem);
}

std::map<std::string, std::string> BuildMetadata(const EventData& data, const std::string& json) {
  const auto& description = data.description;
  return {{"id", description.id},
          {"label", description.label},
          {"labelWrittenLater", data.laterLabel},
          {"trigger", description.trigger},
          {"time", EventStore::FormatTime(description.timeMs)},
          {"timeSource", description.timeSource},
          {"software", description.software},
          {"damage", fmt::format("{}", fmt::join(data.problems, "; "))},
          {EventStore::EventJsonName, json}};
}

}  // namespace

std::string FormatMcap(EventData& data) {
  McapEvent event(data.description.timeMs);
  AddNotes(event, data);
  for (const auto& camera : Cameras) {
    AddVideo(event, data, camera);
    AddStill(event, data, camera);
  }
  AddSensors(event, data);
  AddSound(event, data);
  const std::string json = event.AttachBeside(data, EventStore::EventJsonName, "application/json", MaxDescriptionBytes);
  event.AttachBeside(data, EventStore::SignatureName, "application/octet-stream", MaxDescriptionBytes);
  AddProblems(event, data);
  return event.Finish("event", BuildMetadata(data, json));
}

}  // namespace Tavi::EventTools
