// Whether events are what the unit wrote.
#include "EventStore/Verify.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "EventStore/Chain.h"
#include "EventStore/EventDescription.h"
#include "EventStore/EventList.h"
#include "EventStore/EventName.h"
#include "EventStore/Identity.h"
#include "EventStore/LaterLabel.h"
#include "EventStore/Sha256.h"
#include "EventStore/Storage.h"

namespace Tavi::EventStore {
namespace {

constexpr std::size_t MaxTextBytes = std::size_t{1} << 20;
constexpr std::size_t MaxSignatureBytes = 64;
constexpr std::size_t BlockBytes = std::size_t{256} << 10;

/// What is wrong with a file of the event, empty when it is as described.
std::string CheckContent(const std::string& path, const EventFile& file) {
  std::string problem;
  if (!Exists(path)) return fmt::format("missing: {}", file.name);
  const auto opened = OpenRegularFile(path, problem);
  if (!opened.IsValid()) return fmt::format("changed: {} ({})", file.name, problem);
  Sha256 hash;
  std::string block(BlockBytes, '\0');
  std::uint64_t bytes = 0;
  ssize_t got = 0;
  while ((got = ::read(opened.Get(), block.data(), block.size())) > 0) {
    bytes += static_cast<std::uint64_t>(got);
    if (!hash.Add(block.data(), static_cast<std::size_t>(got))) return fmt::format("not read: {}", file.name);
  }
  if (got < 0) return fmt::format("changed: {} (it cannot be read to its end)", file.name);
  if (bytes != file.bytes)
    return fmt::format("changed: {} (it has {} bytes instead of {})", file.name, bytes, file.bytes);
  return hash.Finish() == file.sha256 ? "" : fmt::format("changed: {} (its content is another)", file.name);
}

bool IsTrusted(const std::set<std::string>& trusted, const std::string& publicKey) {
  return trusted.empty() || trusted.contains(publicKey);
}

/// What is wrong with the signature of a description, empty when nothing is.
std::string CheckSignature(const std::string& eventDir, const EventDescription& event,
                           const std::set<std::string>& trusted) {
  const bool isThere = Exists(eventDir + "/" + SignatureName);
  if (!event.seal) {
    if (isThere) return fmt::format("changed: {} (its seal is gone, its signature is not)", EventJsonName);
    return {};
  }
  if (!isThere) return fmt::format("missing: {}", SignatureName);
  std::string text;
  std::string signature;
  std::string problem;
  if (!ReadSmallFile(eventDir + "/" + EventJsonName, MaxTextBytes, text, problem) ||
      !ReadSmallFile(eventDir + "/" + SignatureName, MaxSignatureBytes, signature, problem) ||
      !IsSignedBy(event.seal->publicKey, text, signature)) {
    return fmt::format("changed: {} (its signature is of another text)", EventJsonName);
  }
  if (IsTrusted(trusted, event.seal->publicKey)) return {};
  return fmt::format("changed: {} (signed by another key, {})", EventJsonName, event.seal->publicKey);
}

/// What the directory has beside the event.
void FindAdded(const std::string& eventDir, const EventDescription& event, std::vector<std::string>& added) {
  for (const std::string& name : ListNames(eventDir)) {
    const bool isDescribed = std::any_of(event.files.begin(), event.files.end(),
                                         [&name](const EventFile& file) { return file.name == name; });
    const bool isOwn = name == EventJsonName || name == ProtectedMarker || name == PageName || name == NewPageName ||
                       name == LaterLabelName || name == NewLaterLabelName || (name == SignatureName && event.seal);
    if (!isDescribed && !isOwn) added.push_back("added: " + name);
  }
}

/// The events of one key by their number, and what says that they were.
class KeyChain {
 public:
  struct Known {
    std::string name;
    std::string sha256;
    bool isThere = false;
    bool isRemoved = false;
    bool isRequested = false;
  };

  void AddLink(const ChainLink& link, std::vector<std::string>& findings) {
    Known& known = m_events[link.sequence];
    Learn(known, link.name, link.sha256, findings);
    known.isRemoved = known.isRemoved || link.isRemoval;
    known.isRequested = known.isRequested || link.isRequested;
  }

  void AddEvent(const Seal& seal, const std::string& name, const std::string& sha256,
                std::vector<std::string>& findings) {
    Known& known = m_events[seal.sequence];
    if (known.isThere)
      findings.push_back(fmt::format("added: {} (number {} is {}, too)", name, seal.sequence, known.name));
    Learn(known, name, sha256, findings);
    known.isThere = true;
    if (seal.sequence > 1) Learn(m_events[seal.sequence - 1], "", seal.previous.value_or(""), findings);
  }

  /// From the first number that anything is known of: what was before belongs to another disk, or an older recorder.
  /// `present`: names of directories; what is wrong with one that is there is not that it is missing.
  void FindMissing(const std::set<std::string>& present, ChainCheck& check) const {
    std::uint64_t next = m_events.empty() ? 0 : m_events.begin()->first;
    for (const auto& [sequence, known] : m_events) {
      for (; next < sequence; ++next)
        check.findings.push_back(fmt::format("missing: number {}, of which nothing is left", next));
      ++next;
      check.removed += known.isRemoved && !known.isThere ? 1 : 0;
      check.removedOnRequest += known.isRequested && !known.isThere ? 1 : 0;
      if (known.isThere || known.isRemoved || present.contains(known.name)) continue;
      const std::string name = known.name.empty() ? "an event" : known.name;
      check.findings.push_back(
          fmt::format("missing: {} (number {}, which the recorder did not remove)", name, sequence));
    }
  }

 private:
  static void Learn(Known& known, const std::string& name, const std::string& sha256,
                    std::vector<std::string>& findings) {
    if (known.name.empty()) known.name = name;
    if (known.sha256.empty()) known.sha256 = sha256;
    if (known.sha256 == sha256) return;
    findings.push_back(fmt::format("changed: {} (another event's seal, or the chain, knows it otherwise)",
                                   name.empty() ? known.name : name));
  }

  std::map<std::uint64_t, Known> m_events;
};

void AddLinks(const std::string& eventsDir, const std::set<std::string>& keys, std::map<std::string, KeyChain>& chains,
              ChainCheck& check) {
  std::size_t damaged = 0;
  std::size_t foreign = 0;
  for (const ChainLink& link : ReadChain(eventsDir, damaged)) {
    const auto signer = std::find_if(keys.begin(), keys.end(), [&link](const std::string& key) {
      return IsSignedBy(key, link.text, link.signature);
    });
    if (signer == keys.end()) {
      ++foreign;
    } else {
      chains[*signer].AddLink(link, check.findings);
    }
  }
  if (damaged + foreign == 0) return;
  check.findings.push_back(fmt::format("changed: {} ({} lines are not the unit's)", ChainName, damaged + foreign));
}

}  // namespace

EventCheck CheckEvent(const std::string& eventDir, const std::set<std::string>& trusted) {
  EventCheck check;
  std::string problem;
  const auto event = ReadEvent(eventDir, problem);
  if (!event) {
    check.findings.push_back(Exists(eventDir + "/" + EventJsonName)
                                 ? fmt::format("changed: {} ({})", EventJsonName, problem)
                                 : fmt::format("missing: {}", EventJsonName));
    return check;
  }
  if (event->seal) check.publicKey = event->seal->publicKey;
  if (std::string wrong = CheckSignature(eventDir, *event, trusted); !wrong.empty()) {
    check.findings.push_back(std::move(wrong));
  }
  for (const EventFile& file : event->files) {
    std::string wrong = CheckContent(eventDir + "/" + file.name, file);
    if (!wrong.empty()) check.findings.push_back(std::move(wrong));
  }
  FindAdded(eventDir, *event, check.added);
  return check;
}

ChainCheck CheckChain(const std::string& eventsDir, const std::set<std::string>& trusted) {
  ChainCheck check;
  std::map<std::string, KeyChain> chains;
  std::set<std::string> keys = trusted;
  std::set<std::string> present;
  for (const EventEntry& entry : ListEvents(eventsDir)) {
    present.insert(entry.name);
    const std::string dir = eventsDir + "/" + entry.name;
    std::string text;
    std::string problem;
    const auto event = ReadEvent(dir, problem);
    // What is wrong with an event itself is CheckEvent's to say, and proves nothing about the others.
    if (!event || !event->seal || !CheckSignature(dir, *event, trusted).empty()) continue;
    if (!ReadSmallFile(dir + "/" + EventJsonName, MaxTextBytes, text, problem)) continue;
    keys.insert(event->seal->publicKey);
    check.publicKeys.insert(event->seal->publicKey);
    if (BuildEventDirName(*event) != entry.name) {
      check.findings.push_back(fmt::format("changed: {} (it is {})", entry.name, BuildEventDirName(*event)));
    }
    chains[event->seal->publicKey].AddEvent(*event->seal, entry.name, HashText(text), check.findings);
  }
  AddLinks(eventsDir, keys, chains, check);
  for (const auto& [key, chain] : chains) chain.FindMissing(present, check);
  return check;
}

}  // namespace Tavi::EventStore
