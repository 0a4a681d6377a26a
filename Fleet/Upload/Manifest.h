// What of an event is sent, in which order, and what says on the far side that it is there.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Fleet/Upload/ContentHash.h"

namespace Tavi::Upload {

/// Last of an event on the far side: with it the event is whole there.
inline constexpr const char* CompleteName = "complete.json";
/// Of an event that went on the unit before it was whole there, and never will be.
inline constexpr const char* PartialName = "partial.json";

/// The parts are sent one behind the other.
enum class Part { Small, Clip, Stream };

struct UploadFile {
  std::string name;
  std::uint64_t bytes = 0;
  /// 64 lower-case hex digits.
  std::string sha256;
  /// By the hash that the far side tells.
  std::string far;
  Part part = Part::Small;
};

struct Manifest {
  /// Of the event's directory.
  std::string event;
  HashType farType = HashType::Sha256;
  /// By their parts, within one as they are described.
  std::vector<UploadFile> files;
};

enum class ManifestTrouble {
  None,
  /// The event is not what the unit wrote.
  Damaged,
  /// It is no more there.
  Gone,
  /// It could not be read this time, or changed meanwhile.
  Unread,
};

/// Verifies the event, signature and all, and hashes each file for the far side; the hash is of bytes whose SHA-256 is
/// the described one. Empty, with the kind and one sentence, when there is nothing to send. Reads every file, a second
/// time where the far side's hash is another one; reentrant.
std::optional<Manifest> BuildManifest(const std::string& eventsDir, const std::string& event, HashType farType,
                                      ManifestTrouble& trouble, std::string& problem);

/// complete.json: the same text for the same event, always. Without `withStreams` streams are listed as withheld.
std::string FormatComplete(const Manifest& manifest, bool withStreams);
/// partial.json.
std::string FormatPartial(const std::string& event);

/// By the type of event.json's list of files.
Part GetPart(std::string_view type);
[[nodiscard]] bool HasStreams(const Manifest& manifest);

}  // namespace Tavi::Upload
