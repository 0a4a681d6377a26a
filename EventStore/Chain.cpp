// The order in which a unit made its events, signed.
#include "EventStore/Chain.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <sstream>
#include <utility>

#include "EventStore/Access.h"
#include "EventStore/EventList.h"
#include "EventStore/EventName.h"
#include "EventStore/Sha256.h"
#include "EventStore/Storage.h"

namespace Tavi::EventStore {
namespace {

/// A line has some 250 bytes: a million links, more than a unit makes in its life.
constexpr std::size_t MaxChainBytes = std::size_t{256} << 20;
constexpr std::string_view SavedWord = "saved";
constexpr std::string_view RemovedWord = "removed";
constexpr std::string_view RequestedWord = "removed-on-request";
/// In front of what is signed, so that no other signature of the key can be taken for a link's.
constexpr std::string_view Purpose = "tavi chain 1: ";

std::string FormatLink(const ChainLink& link) {
  const std::string_view removed = link.isRequested ? RequestedWord : RemovedWord;
  return fmt::format("{} {} {} {}", link.sequence, link.isRemoval ? removed : SavedWord, link.name, link.sha256);
}

std::optional<ChainLink> ParseLink(const std::string& line) {
  std::istringstream words(line);
  ChainLink link;
  std::string word;
  std::string signature;
  if (!(words >> link.sequence >> word >> link.name >> link.sha256 >> signature)) return std::nullopt;
  link.isRequested = word == RequestedWord;
  link.isRemoval = word == RemovedWord || link.isRequested;
  if (word != SavedWord && !link.isRemoval) return std::nullopt;
  link.text = std::string(Purpose) + FormatLink(link);
  link.signature = FromHex(signature);
  // Else something beside the five words would be covered by nothing.
  if (FormatLink(link) + " " + signature != line) return std::nullopt;
  return link;
}

/// The description of an event, and its text.
std::optional<EventDescription> ReadSealed(const std::string& directory, std::string& text) {
  std::string problem;
  auto event = ReadEvent(directory, problem);
  if (!event || !event->seal || !ReadSmallFile(directory + "/" + EventJsonName, MaxTextBytes, text, problem)) {
    return std::nullopt;
  }
  return event;
}

}  // namespace

std::string HashText(std::string_view text) {
  Sha256 hash;
  return hash.Add(text.data(), text.size()) ? hash.Finish() : std::string();
}

std::vector<ChainLink> ReadChain(const std::string& eventsDir, std::size_t& damaged) {
  damaged = 0;
  std::vector<ChainLink> links;
  std::string text;
  std::string problem;
  const std::string path = eventsDir + "/" + ChainName;
  if (!Exists(path)) return links;
  if (!ReadSmallFile(path, MaxChainBytes, text, problem)) {
    LogWarning(problem);
    damaged = 1;
    return links;
  }
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    // Behind a line that power has cut; see Append.
    if (line.empty()) continue;
    if (auto link = ParseLink(line)) {
      links.push_back(std::move(*link));
    } else {
      ++damaged;
    }
  }
  return links;
}

Chain::Chain(std::string eventsDir, Identity identity)
    : m_eventsDir(std::move(eventsDir)), m_identity(std::move(identity)) {}

void Chain::Open() {
  std::size_t damaged = 0;
  m_sequence = 0;
  m_newest.clear();
  for (const ChainLink& link : ReadChain(m_eventsDir, damaged)) {
    if (link.isRemoval || link.sequence <= m_sequence) continue;
    if (!IsSignedBy(m_identity.GetPublicKey(), link.text, link.signature)) continue;
    m_sequence = link.sequence;
    m_newest = link.sha256;
  }
  // Power may have gone between an event and its link. Others' events, copied here, are none of this chain.
  std::vector<std::pair<std::string, std::string>> unnoted;
  auto events = ListEvents(m_eventsDir);
  for (auto entry = events.rbegin(); entry != events.rend(); ++entry) {
    const std::string directory = m_eventsDir + "/" + entry->name;
    std::string text;
    std::string signature;
    std::string problem;
    const auto event = ReadSealed(directory, text);
    if (!event || event->seal->publicKey != m_identity.GetPublicKey()) continue;
    if (event->seal->sequence <= m_sequence) break;
    const bool isRead = ReadSmallFile(directory + "/" + SignatureName, MaxTextBytes, signature, problem);
    if (isRead && IsSignedBy(m_identity.GetPublicKey(), text, signature)) unnoted.emplace_back(entry->name, text);
  }
  for (auto missed = unnoted.rbegin(); missed != unnoted.rend(); ++missed) NoteSaved(missed->first, missed->second);
}

Seal Chain::MakeSeal() const {
  Seal seal;
  seal.publicKey = m_identity.GetPublicKey();
  seal.sequence = m_sequence + 1;
  if (!m_newest.empty()) seal.previous = m_newest;
  return seal;
}

void Chain::NoteSaved(const std::string& name, std::string_view text) {
  ChainLink link;
  link.sequence = ++m_sequence;
  link.name = name;
  link.sha256 = m_newest = HashText(text);
  if (!Append(link)) LogWarning(fmt::format("event {} is not noted in {}/{} yet", name, m_eventsDir, ChainName));
}

bool Chain::NoteRemoved(const std::string& directory, const std::string& name, bool isRequested) {
  std::string text;
  const auto event = ReadSealed(directory, text);
  // One of an older recorder, or of another unit: nobody will miss it in this chain.
  if (!event || event->seal->publicKey != m_identity.GetPublicKey()) return true;
  ChainLink link;
  link.isRemoval = true;
  link.isRequested = isRequested;
  link.sequence = event->seal->sequence;
  link.name = name;
  link.sha256 = HashText(text);
  return Append(link);
}

bool Chain::Append(const ChainLink& link) {
  const std::string text = FormatLink(link);
  const std::string signature = m_identity.Sign(std::string(Purpose) + text);
  const std::string path = m_eventsDir + "/" + ChainName;
  auto file = Ksystem::FileUtils::UniqueFd::Open(path, O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW);
  if (file.IsValid()) ShareFile(file.Get(), m_eventsDir);
  std::string problem;
  // A line that power has cut must not swallow this one.
  char last = '\n';
  const off_t size = file.IsValid() ? ::lseek(file.Get(), 0, SEEK_END) : 0;
  const bool isCut = size > 0 && ::pread(file.Get(), &last, 1, size - 1) == 1 && last != '\n';
  const std::string line = (isCut ? "\n" : "") + text + " " + ToHex(signature) + "\n";
  const bool isWritten = !signature.empty() && file.IsValid() && WriteAll(file.Get(), line.data(), line.size()) &&
                         ::fdatasync(file.Get()) == 0 && file.Close();
  if (!isWritten && !Fail("write", path, problem)) LogWarning(problem);
  return isWritten;
}

}  // namespace Tavi::EventStore
