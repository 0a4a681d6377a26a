// One event as it lies on disk: its description and what its sensor files hold.
#include "EventPage/EventData.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <utility>

#include "EventStore/LaterLabel.h"
#include "EventStore/Storage.h"
#include "EventStore/Verify.h"

namespace Tavi::EventTools {
namespace {

/// Far more than the longest window's; more is no event's file.
constexpr std::size_t MaxSensorBytes = 4'000'000;

/// `fallbackRate`: entries a second where the description tells none.
TimeBase GetTimeBase(const EventStore::EventDescription& description, std::string_view type, double fallbackRate) {
  const auto* stream = FindStream(description, type);
  if (stream == nullptr) return {static_cast<double>(description.startSeconds), fallbackRate};
  // Damage may have put any number there.
  const bool isUsable = stream->rate >= 0.01 && stream->rate <= 1000.0;
  return {stream->fromSeconds, isUsable ? stream->rate : fallbackRate};
}

/// Once is enough: a file that cannot be opened fails in every look at it.
void AddProblem(EventData& data, std::string sentence) {
  const bool isNew = std::find(data.problems.begin(), data.problems.end(), sentence) == data.problems.end();
  if (isNew && !sentence.empty()) data.problems.push_back(std::move(sentence));
}

std::string GetPath(const EventData& data, const EventStore::EventFile& file) {
  return data.directory + "/" + file.name;
}

template <typename Record, typename Parse>
SensorRecords<Record> LoadSensor(EventData& data, std::string_view type, double fallbackRate, const Parse& parse) {
  SensorRecords<Record> result;
  std::string content;
  if (!ReadEventFile(data, type, MaxSensorBytes, content, result.problem)) {
    AddProblem(data, result.problem);
    return result;
  }
  TimeBase base = GetTimeBase(data.description, type, fallbackRate);
  std::string companion;
  std::string problem;
  if (ReadEventFile(data, std::string(type) + "Times", MaxSensorBytes, companion, problem)) {
    base.seconds = ParseEntrySeconds(companion);
  }
  AddProblem(data, problem);
  result = parse(content, base);
  if (!result.problem.empty()) {
    AddProblem(data, GetPath(data, *FindFile(data.description, type)) + ": " + result.problem);
  }
  return result;
}

}  // namespace

bool LoadEvent(const std::string& directory, EventData& data, std::string& problem, EventProof proof) {
  auto description = EventStore::ReadEvent(directory, problem);
  if (!description) return false;
  data.directory = directory;
  data.description = std::move(*description);
  data.laterLabel = EventStore::ReadLaterLabel(directory);
  data.isChecked = proof == EventProof::All;
  if (data.isChecked) {
    for (auto& finding : EventStore::CheckEvent(directory, {}).findings) AddProblem(data, directory + ": " + finding);
  }
  data.gps = LoadSensor<Fix>(data, "Gps", 1.0, ParseGps);
  data.acc = LoadSensor<AccSample>(data, "Acc", 10.0, [&data](std::string_view bytes, const TimeBase& base) {
    return ParseAcc(bytes, base, data.description.accScaleG);
  });
  data.other = LoadSensor<MetricSample>(data, "Other", 1.0, ParseOther);
  return true;
}

bool ReadEventFile(const EventData& data, std::string_view type, std::size_t maxBytes, std::string& content,
                   std::string& problem) {
  const auto* file = FindFile(data.description, type);
  if (file == nullptr) return false;
  const std::string path = GetPath(data, *file);
  std::error_code error;
  const std::uint64_t size = std::filesystem::file_size(path, error);
  return EventStore::ReadSmallFile(path, error ? 0 : std::min<std::uint64_t>(size, maxBytes), content, problem);
}

const EventStore::StreamWindow* FindStream(const EventStore::EventDescription& description, std::string_view type) {
  const auto found = std::find_if(description.streams.begin(), description.streams.end(),
                                  [type](const auto& stream) { return stream.type == type; });
  return found == description.streams.end() ? nullptr : &*found;
}

const EventStore::EventFile* FindFile(const EventStore::EventDescription& description, std::string_view type) {
  const auto found = std::find_if(description.files.begin(), description.files.end(),
                                  [type](const auto& file) { return file.type == type; });
  return found == description.files.end() ? nullptr : &*found;
}

std::int64_t GetUtcMs(const EventStore::EventDescription& description, double secondsFromEvent) {
  // A damaged description may have any number here; a year is far beyond every window.
  constexpr double FarMs = 366.0 * 86'400'000.0;
  return description.timeMs + std::llround(std::clamp(secondsFromEvent * 1000.0, -FarMs, FarMs));
}

std::string GetTitle(const EventStore::EventDescription& description) {
  return description.label.empty() ? "Event " + description.id : description.label;
}

}  // namespace Tavi::EventTools
