// An event's own page and its archive.
#include "Fleet/Web/EventPages.h"

#include <fmt/format.h>

#include "EventPage/EventData.h"
#include "EventPage/PageHtml.h"
#include "EventStore/EventName.h"
#include "EventStore/LaterLabel.h"
#include "Fleet/Web/ArchiveBody.h"
#include "Fleet/Web/EventFiles.h"

namespace Tavi::Web {
namespace {

constexpr std::int64_t MsPerSecond = 1000;

std::optional<std::string> BuildPage(const std::string& directory, std::string& problem) {
  EventTools::EventData data;
  if (!EventTools::LoadEvent(directory, data, problem, EventTools::EventProof::Nothing)) return std::nullopt;
  return EventTools::BuildPageBesideFiles(data);
}

}  // namespace

std::optional<std::string> BuildEventPage(const std::string& directory, std::string& problem) {
  constexpr std::string_view Body = "<body>\n";
  constexpr std::string_view Way =
      "<nav aria-label=\"Console\" style=\"max-width:1280px;margin:0 auto;padding:12px 16px 0\"><a href=\"/\">All "
      "events</a></nav>\n";
  auto page = BuildPage(directory, problem);
  if (!page) return std::nullopt;
  const std::size_t begin = page->find(Body);
  if (begin != std::string::npos) page->insert(begin + Body.size(), Way);
  return page;
}

std::unique_ptr<BodySource> BuildArchive(const std::string& eventsDir, const std::string& name, std::string& problem) {
  const EventFiles files(eventsDir, name, problem);
  if (!files.IsValid()) return nullptr;
  auto archive = std::make_unique<ArchiveBody>(files.GetEvent().timeMs / MsPerSecond);
  std::string absent;
  for (const auto& each : files.ListNames()) {
    auto file = files.Open(each);
    // An event that nobody has signed has no signature.
    const bool isMissing = !file && (each != "event.json.sig" || files.GetEvent().seal);
    if (file) archive->Add(name + "/" + each, std::move(*file));
    if (isMissing) absent += each + "\n";
  }
  if (!absent.empty()) archive->Add(name + "/not-in-this-archive.txt", "These could not be read:\n" + absent);
  if (const auto later = EventStore::ReadLaterLabel(eventsDir + "/" + name); !later.empty()) {
    archive->Add(name + "/" + EventStore::LaterLabelName, later + "\n");
  }
  std::string ignored;
  if (auto page = BuildPage(eventsDir + "/" + name, ignored)) {
    archive->Add(name + "/" + std::string(EventStore::PageName), std::move(*page));
  }
  return archive;
}

}  // namespace Tavi::Web
