// Whether events are what the unit wrote.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace Tavi::EventStore {

/// What was found of one event.
struct EventCheck {
  /// One for each thing that is not as the unit left it: "changed: video1_1.mp4 (...)", "missing: ...". Empty: the
  /// files are what the description says, and the description is what its signer wrote.
  std::vector<std::string> findings;
  /// "added: notes.txt": what lies beside the event's own files, and harms none of them.
  std::vector<std::string> added;
  /// Whose signature it carries, 64 hex digits; empty for one that nobody has signed.
  std::string publicKey;
};

/// Reads every file of the event. `trusted`: keys of whom the signature may be, of anybody where it is empty.
/// A description without a seal, as older recorders wrote it, is no finding: `publicKey` is empty then. Reentrant.
EventCheck CheckEvent(const std::string& eventDir, const std::set<std::string>& trusted);

/// What was found of the order of an events directory.
struct ChainCheck {
  /// "missing: 20261121T134005Z_9f3ca1b2 (...)", "changed: ...".
  std::vector<std::string> findings;
  /// Whose links there are; more than one after a change of the key, or of the unit.
  std::set<std::string> publicKeys;
  /// Events that the recorder itself removed, to make room or because it was told to.
  std::uint64_t removed = 0;
  /// Those of them that somebody has asked for.
  std::uint64_t removedOnRequest = 0;
};

/// Looks at the signed descriptions and at the chain, not at the other files of the events. An event is missed when
/// another one, or the chain, knows of it and no link says that the recorder removed it. What was taken off the end of
/// both is not missed. Reentrant.
ChainCheck CheckChain(const std::string& eventsDir, const std::set<std::string>& trusted);

}  // namespace Tavi::EventStore
