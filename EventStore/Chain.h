// The order in which a unit made its events, signed, so that one that is taken away is missed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "EventStore/EventDescription.h"
#include "EventStore/Identity.h"

namespace Tavi::EventStore {

/// In the events directory: a line for each event that was saved, and one for each that was removed by the recorder.
inline constexpr const char* ChainName = ".chain";
/// Beside event.json: the 64 bytes of its signature.
inline constexpr const char* SignatureName = "event.json.sig";

struct ChainLink {
  bool isRemoval = false;
  /// Of a removal: somebody has asked for it; else it made room.
  bool isRequested = false;
  /// Of the event, as in its Seal.
  std::uint64_t sequence = 0;
  /// Of the event's directory.
  std::string name;
  /// Of the event's description.
  std::string sha256;
  /// What is signed, and by it.
  std::string text;
  std::string signature;
};

/// The links of an events directory in their order; empty, too, where there are none. Lines that are none are counted
/// in `damaged`. Reentrant.
std::vector<ChainLink> ReadChain(const std::string& eventsDir, std::size_t& damaged);

/// Of the text of a description: 64 lower-case hex digits.
std::string HashText(std::string_view text);

/// Writes the chain of one events directory. Thread-bound; blocks on the disk.
class Chain {
 public:
  Chain(std::string eventsDir, Identity identity);

  /// Takes up where the process before has ended: what it saved or began to remove without noting it is noted now. To
  /// be called with the directory's lock held, before anything is removed from it.
  void Open();
  /// What the next event is to say of itself.
  [[nodiscard]] Seal MakeSeal() const;
  /// The signature of a description.
  [[nodiscard]] std::string Sign(std::string_view text) const { return m_identity.Sign(text); }
  /// The event of MakeSeal is on the disk. A note that cannot be written is logged: the next Open makes it.
  void NoteSaved(const std::string& name, std::string_view text);
  /// The event of `directory`, which was called `name`, is going. False when it could not be noted: once more when
  /// there is room.
  [[nodiscard]] bool NoteRemoved(const std::string& directory, const std::string& name, bool isRequested = false);

  [[nodiscard]] const Identity& GetIdentity() const { return m_identity; }
  /// Of the newest event; 0 before there is one.
  [[nodiscard]] std::uint64_t GetSequence() const { return m_sequence; }

 private:
  [[nodiscard]] bool Append(const ChainLink& link);

  const std::string m_eventsDir;
  const Identity m_identity;
  std::uint64_t m_sequence = 0;
  /// Hash of the newest event's description, empty before there is one.
  std::string m_newest;
};

}  // namespace Tavi::EventStore
