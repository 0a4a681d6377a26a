// The messages of one event on their way into an MCAP file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "EventPage/EventData.h"
#include "Tools/Mcap/McapWriter.h"

namespace Tavi::EventTools {

/// Takes messages in any order and writes them in that of their times. Owns them until then. Thread-bound.
class McapEvent {
 public:
  /// `eventMs`: the moment of the event, Unix time in milliseconds.
  explicit McapEvent(std::int64_t eventMs);

  /// Unix time in nanoseconds of a moment on the event's time line; 1970 for what is before it.
  [[nodiscard]] std::uint64_t GetTimeNs(double secondsFromEvent) const;
  /// A message of `schema` (McapSchemas.h), in the encoding of Protocol Buffers.
  void Add(const std::string& topic, std::string_view schema, std::uint64_t timeNs, std::string_view message);
  /// Has the event's file of `type` go along as it is. False when the event has none, and, with a problem in `data`,
  /// when it cannot be read.
  bool AttachFile(EventData& data, std::string_view type, std::string_view mediaType, std::size_t maxBytes);
  /// The same for a file of the event's directory that the description does not list. Returns its content; empty when
  /// there is none, or it cannot be read.
  std::string AttachBeside(EventData& data, std::string_view name, std::string_view mediaType, std::size_t maxBytes);

  /// The whole file, with one record of metadata. Once.
  std::string Finish(std::string_view metadataName, const std::map<std::string, std::string>& metadata);

 private:
  struct Message {
    std::uint64_t timeNs = 0;
    std::uint16_t channel = 0;
    std::string_view content;
  };
  struct Attached {
    std::string name;
    std::string_view mediaType;
    std::string content;
  };

  std::uint16_t GetChannel(const std::string& topic, std::string_view schema);
  std::string_view Keep(std::string_view message);

  const std::int64_t m_eventNs;
  Mcap::McapWriter m_writer;
  std::map<std::string, std::uint16_t> m_channels;
  std::map<std::string_view, std::uint16_t> m_schemas;
  std::vector<Message> m_messages;
  /// What the messages point to, in few large pieces: one for each message would be strewn between the frames that the
  /// media library takes and gives back, and keep their memory in use.
  std::vector<std::string> m_blocks;
  std::vector<Attached> m_attached;
  std::size_t m_bytes = 0;
};

}  // namespace Tavi::EventTools
