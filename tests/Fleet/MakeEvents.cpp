// Makes a thousand events' descriptions in directories of their own, and says what is in them: MakeEvents DIRECTORY
#include <array>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <map>
#include <set>

#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "Kbase/Json/Json.h"

namespace {

using namespace Tavi::EventStore;
using Json = Kbase::Json::Object;

constexpr int Events = 1000;
constexpr int Units = 10;
constexpr std::int64_t FirstMs = 1'795'268'400'123;  // 2026-11-21T13:40:00.123Z
constexpr std::int64_t StepMs = 1'700'000;           // a thousand of them are on 21 days
constexpr std::array<const char*, 6> Streams{"VideoCamera1", "VideoCamera0", "Audio", "Gps", "Acc", "Other"};

/// What the queries are to find.
struct Expected {
  std::map<std::string, std::pair<std::string, double>> hardestByDay;
  std::map<std::pair<std::string, std::string>, int> lacking;
};

/// Units 3 and 7 lack a stream now and then; events of unit 9 are not signed.
bool HasStream(int number, std::size_t stream) {
  const int unit = number % Units;
  return !(unit == 3 && stream == 2 && number % 4 == 1) && !(unit == 7 && stream >= 3 && number % 3 == 0);
}

EventDescription Build(int number) {
  EventDescription event;
  event.id = BuildEventId(std::to_string(number));
  event.timeMs = FirstMs + number * StepMs;
  event.software = "tavi-recorder 0.1.0";
  event.trigger = number % 3 == 0 ? "request" : "acceleration";
  event.label = number % 3 == 0 ? "Tür \"" + std::to_string(number) + "\"" : "";
  // Hits of whole thousandths, no two of them alike; every tenth unit has no accelerometer.
  if (number % Units != 5) event.maxG = (number * 7919 % 4001) / 1000.0;
  if (number % 2 == 0) event.position = Position{48.1 + number / 1e4, 11.5, 22.5, "2026-11-21T13:40:05Z"};
  for (std::size_t stream = 0; stream < Streams.size(); ++stream) {
    if (HasStream(number, stream)) event.streams.push_back({Streams[stream], 300, 10.0, -15.0, 15.0, {}, {}});
    if (!HasStream(number, stream)) event.missing.push_back({Streams[stream], 30.0, "it is not there"});
  }
  event.files = {{"Gps", "gps.dat", 1200, std::string(64, 'a')}};
  const auto unit = static_cast<char>('0' + number % Units);
  if (number % Units != 9) event.seal = Seal{std::string(64, unit), static_cast<std::uint64_t>(number / Units + 1), {}};
  return event;
}

void Note(const EventDescription& event, Expected& expected) {
  if (event.trigger == "acceleration" && event.maxG) {
    auto& hardest = expected.hardestByDay[FormatTime(event.timeMs).substr(0, 10)];
    if (*event.maxG > hardest.second) hardest = {event.id, *event.maxG};
  }
  for (const auto& part : event.missing) {
    if (event.seal) ++expected.lacking[{event.seal->publicKey, part.type}];
  }
}

/// Recorders of before knew fewer keys.
std::string Age(const std::string& text) {
  Json json = Kbase::Json::Parse(text);
  for (const char* key : {"missing", "cameraNames", "seal", "accScaleG", "timeSource"}) json.erase(key);
  return Kbase::Json::PrintLines(json);
}

Json Print(const Expected& expected) {
  Json json{{"hardest", Json::array()}, {"lacking", Json::array()}};
  for (const auto& [day, hardest] : expected.hardestByDay) {
    json["hardest"].push_back({{"day", day}, {"id", hardest.first}, {"g", hardest.second}});
  }
  for (const auto& [key, events] : expected.lacking) {
    json["lacking"].push_back({{"unit", key.first}, {"stream", key.second}, {"events", events}});
  }
  return json;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) return 2;
  Expected expected;
  for (int number = 0; number < Events; ++number) {
    const EventDescription event = Build(number);
    const std::string dir = std::string(argv[1]) + "/" + BuildEventDirName(event);
    std::filesystem::create_directories(dir);
    const bool isOld = number % 100 == 99;
    std::ofstream(dir + "/" + EventJsonName) << (isOld ? Age(FormatEvent(event)) : FormatEvent(event));
    Note(event, expected);
  }
  std::cout << Kbase::Json::Print(Print(expected)) << "\n";
  return 0;
}
