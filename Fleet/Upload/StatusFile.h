// What others are told of the upload: a file for the recorder's status, another for metrics.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Fleet/Upload/UploadState.h"

namespace Tavi::Upload {

struct UploadStatus {
  /// "waiting" for events, "sending", "pausing" after a failure, "stopped".
  std::string state = "waiting";
  /// Events that are still to be sent, and those of which only streams are.
  std::uint64_t waiting = 0;
  std::uint64_t withheld = 0;
  /// As of UploadState.
  std::uint64_t sent = 0;
  std::uint64_t deleted = 0;
  /// Since the start: failures, and damaged events, which are left.
  std::uint64_t failed = 0;
  std::uint64_t damaged = 0;
  /// Of the last failure, empty before one; stays until something was sent.
  std::string lastError;
  std::optional<LastSent> lastSent;
  /// Empty: not known.
  std::optional<bool> metered;
};

/// Writes both files, world-readable: there is nothing in them that a status would not tell. Complains once of what
/// cannot be written, until it can. Thread-bound.
class StatusFile {
 public:
  /// Empty for one that is not wanted.
  StatusFile(std::string statusPath, std::string metricsPath)
      : m_statusPath(std::move(statusPath)), m_metricsPath(std::move(metricsPath)) {}
  void Write(const UploadStatus& status);

 private:
  const std::string m_statusPath;
  const std::string m_metricsPath;
  std::string m_told;
  /// As they were written last.
  std::string m_metrics;
};

/// One JSON object, with the machine's uptime of now, which tells its age to whoever reads it before the next start of
/// the machine.
std::string FormatStatus(const UploadStatus& status);
/// Prometheus' text exposition format.
std::string FormatMetrics(const UploadStatus& status);

}  // namespace Tavi::Upload
