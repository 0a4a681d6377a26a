// What of an event is sent, in which order, and what says on the far side that it is there.
#include "Fleet/Upload/Manifest.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>

#include "EventStore/Chain.h"
#include "EventStore/EventDescription.h"
#include "EventStore/EventName.h"
#include "EventStore/Storage.h"
#include "EventStore/Verify.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Upload {
namespace {

using Kbase::Json::Object;

/// Hashes one file into the list. `described` is its SHA-256 in event.json, empty for what stands beside.
bool AddFile(const std::string& dir, const std::string& name, Part part, const std::string& described,
             Manifest& manifest, std::string& problem) {
  const auto hashes = HashFile(dir + "/" + name, manifest.farType, problem);
  if (!hashes) return false;
  if (!described.empty() && hashes->sha256 != described) {
    problem = fmt::format("{} changed while it was read", name);
    return false;
  }
  manifest.files.push_back({name, hashes->bytes, hashes->sha256, hashes->far, part});
  return true;
}

/// A description that was read and verified needs no second reading where the far side tells the same hash.
bool AddDescribed(const std::string& dir, const EventStore::EventFile& file, Manifest& manifest, std::string& problem) {
  const Part part = GetPart(file.type);
  if (manifest.farType != HashType::Sha256) return AddFile(dir, file.name, part, file.sha256, manifest, problem);
  manifest.files.push_back({file.name, file.bytes, file.sha256, file.sha256, part});
  return true;
}

bool AddFiles(const std::string& dir, const EventStore::EventDescription& event, Manifest& manifest,
              std::string& problem) {
  if (!AddFile(dir, EventStore::EventJsonName, Part::Small, "", manifest, problem)) return false;
  for (const auto& name : {std::string(EventStore::SignatureName), std::string(EventStore::PageName)}) {
    const bool isThere = EventStore::Exists(dir + "/" + name);
    if (isThere && !AddFile(dir, name, Part::Small, "", manifest, problem)) return false;
  }
  for (const auto& file : event.files) {
    if (!AddDescribed(dir, file, manifest, problem)) return false;
  }
  std::ranges::stable_sort(manifest.files, {}, &UploadFile::part);
  return true;
}

}  // namespace

Part GetPart(std::string_view type) {
  const bool isVideo = type.starts_with("VideoCamera");
  if (isVideo && (type.ends_with("Stream") || type.ends_with("Times"))) return Part::Stream;
  const bool isSensor = type.starts_with("Gps") || type.starts_with("Acc") || type.starts_with("Other");
  return isSensor || type.starts_with("Thumbnail") || type.ends_with("Still") ? Part::Small : Part::Clip;
}

bool HasStreams(const Manifest& manifest) {
  return std::ranges::any_of(manifest.files, [](const UploadFile& file) { return file.part == Part::Stream; });
}

std::optional<Manifest> BuildManifest(const std::string& eventsDir, const std::string& event, HashType farType,
                                      ManifestTrouble& trouble, std::string& problem) {
  const std::string dir = eventsDir + "/" + event;
  const auto check = EventStore::CheckEvent(dir, {});
  const auto description = EventStore::ReadEvent(dir, problem);
  Manifest manifest{event, farType, {}};
  if (description && check.findings.empty() && AddFiles(dir, *description, manifest, problem)) {
    trouble = ManifestTrouble::None;
    return manifest;
  }
  trouble = !check.findings.empty() || !description ? ManifestTrouble::Damaged : ManifestTrouble::Unread;
  if (!check.findings.empty()) problem = fmt::format("{}", fmt::join(check.findings, "; "));
  // Found last: an event that loses its name while it is read is not damaged.
  if (!EventStore::Exists(dir)) trouble = ManifestTrouble::Gone;
  return std::nullopt;
}

std::string FormatComplete(const Manifest& manifest, bool withStreams) {
  auto files = Object::array();
  auto withheld = Object::array();
  for (const auto& file : manifest.files) {
    if (file.part == Part::Stream && !withStreams) {
      withheld.push_back(file.name);
    } else {
      files.push_back(Object{{"name", file.name}, {"bytes", file.bytes}, {"sha256", file.sha256}});
    }
  }
  return Kbase::Json::PrintLines({{"schema", 1}, {"event", manifest.event}, {"files", files}, {"withheld", withheld}});
}

std::string FormatPartial(const std::string& event) {
  return Kbase::Json::PrintLines(
      {{"schema", 1}, {"event", event}, {"reason", "it was removed on the unit before all of it was sent"}});
}

}  // namespace Tavi::Upload
