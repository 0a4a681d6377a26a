// What a program that sends the events away says of itself, for the recorder's status.
#include "Recorder/Service/UploadReport.h"

#include <array>
#include <ctime>

#include "EventStore/Storage.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Recorder {
namespace {

using Kbase::Json::Object;

constexpr std::size_t MaxReportBytes = std::size_t{64} << 10;
constexpr std::array<const char*, 6> Numbers{"waiting", "withheld", "sent", "deleted", "failed", "damaged"};

double GetUptimeMs() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

Object Take(const Object& report, const char* name, bool (*isRight)(const Object&)) {
  const auto field = report.find(name);
  return field != report.end() && isRight(*field) ? *field : Object(nullptr);
}

}  // namespace

Object ReadUploadReport(const std::string& path) {
  std::string text;
  std::string problem;
  if (path.empty() || !EventStore::ReadSmallFile(path, MaxReportBytes, text, problem)) return nullptr;
  const auto report = Kbase::Json::Parse(text);
  if (!report.is_object()) return nullptr;
  const auto isText = [](const Object& value) { return value.is_string(); };
  const auto isNumber = [](const Object& value) { return value.is_number_unsigned(); };
  Object shown;
  shown["state"] = Take(report, "state", isText);
  for (const char* name : Numbers) shown[name] = Take(report, name, isNumber);
  shown["lastError"] = Take(report, "lastError", isText);
  const auto last = Take(report, "lastSent", [](const Object& value) { return value.is_object(); });
  shown["lastSent"] = last.is_object() ? Take(last, "event", isText) : Object(nullptr);
  shown["lastSentTime"] = last.is_object() ? Take(last, "time", isText) : Object(nullptr);
  shown["metered"] = Take(report, "metered", [](const Object& value) { return value.is_boolean(); });
  const auto stated = Take(report, "bootMs", isNumber);
  shown["ageSeconds"] = stated.is_null() ? Object(nullptr) : Object((GetUptimeMs() - stated.get<double>()) / 1e3);
  return shown;
}

}  // namespace Tavi::Recorder
