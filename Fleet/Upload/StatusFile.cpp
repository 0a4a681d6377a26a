// What others are told of the upload: a file for the recorder's status, another for metrics.
#include "Fleet/Upload/StatusFile.h"

#include <fmt/format.h>

#include <ctime>

#include "Fleet/Upload/Log.h"
#include "Fleet/Upload/WholeFile.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Upload {
namespace {

using Kbase::Json::Object;

constexpr mode_t ForAll = 0644;

std::int64_t GetBootMs() {
  timespec now{};
  ::clock_gettime(CLOCK_BOOTTIME, &now);
  return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace

std::string FormatStatus(const UploadStatus& status) {
  Object lastSent = nullptr;
  if (status.lastSent) lastSent = Object{{"event", status.lastSent->event}, {"time", status.lastSent->time}};
  return Kbase::Json::PrintLines({{"schema", 1},
                                  {"software", "tavi-upload " TAVI_VERSION},
                                  {"bootMs", GetBootMs()},
                                  {"state", status.state},
                                  {"waiting", status.waiting},
                                  {"withheld", status.withheld},
                                  {"sent", status.sent},
                                  {"deleted", status.deleted},
                                  {"failed", status.failed},
                                  {"damaged", status.damaged},
                                  {"lastError", status.lastError.empty() ? Object(nullptr) : Object(status.lastError)},
                                  {"lastSent", lastSent},
                                  {"metered", status.metered ? Object(*status.metered) : Object(nullptr)}});
}

std::string FormatMetrics(const UploadStatus& status) {
  std::string text;
  const auto add = [&text](const char* name, const char* type, const char* help, std::uint64_t value) {
    text += fmt::format("# HELP {0} {1}\n# TYPE {0} {2}\n{0} {3}\n", name, help, type, value);
  };
  add("tavi_upload_waiting_events", "gauge", "Events that are still to be sent.", status.waiting);
  add("tavi_upload_withheld_events", "gauge", "Events of which only streams are still to be sent.", status.withheld);
  add("tavi_upload_sent_total", "counter", "Events that are whole on the far side.", status.sent);
  add("tavi_upload_deleted_total", "counter", "Events that were removed here afterwards.", status.deleted);
  add("tavi_upload_failures_total", "counter", "Failures since the start.", status.failed);
  add("tavi_upload_damaged_events", "gauge", "Events that are not sent because they are damaged.", status.damaged);
  add("tavi_upload_pausing", "gauge", "1 while it pauses after a failure.", status.state == "pausing" ? 1 : 0);
  if (status.metered) add("tavi_upload_metered", "gauge", "1 on a network that costs by volume.", *status.metered);
  return text;
}

void StatusFile::Write(const UploadStatus& status) {
  std::string problem;
  bool isWritten = m_statusPath.empty() || WriteWholeFile(m_statusPath, FormatStatus(status), ForAll, problem);
  // It may lie on a disk, unlike the status, and is synced: only what is new goes there.
  const std::string metrics = FormatMetrics(status);
  if (!m_metricsPath.empty() && metrics != m_metrics) {
    const bool isDone = WriteWholeFile(m_metricsPath, metrics, ForAll, problem);
    m_metrics = isDone ? metrics : "";
    isWritten = isWritten && isDone;
  }
  if (!isWritten && problem != m_told) LogWarning(problem);
  m_told = problem;
}

}  // namespace Tavi::Upload
