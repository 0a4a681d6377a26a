// The messages of one event on their way into an MCAP file.
#include "Tools/Export/McapEvent.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "EventStore/Storage.h"
#include "Tools/Export/McapSchemas.h"

namespace Tavi::EventTools {
namespace {

constexpr std::int64_t NsPerMs = 1'000'000;
/// The year 2255; a damaged description may have any number, and the format's times end in 2554.
constexpr std::int64_t LastMs = 9'000'000'000'000;
/// More than the records around a message and its place in the index.
constexpr std::size_t BytesAroundMessage = 64;
constexpr std::size_t BlockBytes = 2'000'000;
constexpr std::size_t BytesAroundAll = 100'000;
constexpr std::string_view Encoding = "protobuf";

}  // namespace

McapEvent::McapEvent(std::int64_t eventMs)
    : m_eventNs(std::clamp<std::int64_t>(eventMs, 0, LastMs) * NsPerMs), m_writer("tavi-export " TAVI_VERSION) {}

std::uint64_t McapEvent::GetTimeNs(double secondsFromEvent) const {
  /// A year is far beyond every window.
  constexpr double FarSeconds = 366.0 * 86'400.0;
  const double seconds = std::isfinite(secondsFromEvent) ? std::clamp(secondsFromEvent, -FarSeconds, FarSeconds) : 0.0;
  return static_cast<std::uint64_t>(std::max<std::int64_t>(m_eventNs + std::llround(seconds * 1e9), 0));
}

void McapEvent::Add(const std::string& topic, std::string_view schema, std::uint64_t timeNs, std::string_view message) {
  m_bytes += message.size() + BytesAroundMessage;
  m_messages.push_back({timeNs, GetChannel(topic, schema), Keep(message)});
}

/// A block is never moved: it has room for what it takes from the beginning.
std::string_view McapEvent::Keep(std::string_view message) {
  if (m_blocks.empty() || m_blocks.back().capacity() - m_blocks.back().size() < message.size()) {
    m_blocks.emplace_back().reserve(std::max(BlockBytes, message.size()));
  }
  std::string& block = m_blocks.back();
  const std::size_t start = block.size();
  return std::string_view(block.append(message)).substr(start);
}

bool McapEvent::AttachFile(EventData& data, std::string_view type, std::string_view mediaType, std::size_t maxBytes) {
  std::string content;
  std::string problem;
  const bool isRead = ReadEventFile(data, type, maxBytes, content, problem);
  AddProblem(data, std::move(problem));
  if (!isRead) return false;
  m_bytes += content.size();
  m_attached.push_back({FindFile(data.description, type)->name, mediaType, std::move(content)});
  return true;
}

std::string McapEvent::AttachBeside(EventData& data, std::string_view name, std::string_view mediaType,
                                    std::size_t maxBytes) {
  const std::string path = data.directory + "/" + std::string(name);
  if (!EventStore::Exists(path)) return {};
  std::string content;
  std::string problem;
  if (!EventStore::ReadSmallFile(path, maxBytes, content, problem)) {
    AddProblem(data, std::move(problem));
    return {};
  }
  m_bytes += content.size();
  m_attached.push_back({std::string(name), mediaType, content});
  return content;
}

std::string McapEvent::Finish(std::string_view metadataName, const std::map<std::string, std::string>& metadata) {
  m_writer.Reserve(m_bytes + BytesAroundAll);
  std::ranges::stable_sort(m_messages, {}, &Message::timeNs);
  for (const auto& [timeNs, channel, content] : m_messages) m_writer.AddMessage(channel, timeNs, content);
  for (const auto& [name, mediaType, content] : m_attached) {
    m_writer.AddAttachment({name, mediaType, static_cast<std::uint64_t>(m_eventNs), content});
  }
  m_writer.AddMetadata(metadataName, metadata);
  return m_writer.Finish();
}

std::uint16_t McapEvent::GetChannel(const std::string& topic, std::string_view schema) {
  if (const auto known = m_channels.find(topic); known != m_channels.end()) return known->second;
  auto type = m_schemas.find(schema);
  if (type == m_schemas.end()) {
    type = m_schemas.emplace(schema, m_writer.AddSchema(schema, Encoding, GetSchemaData(schema))).first;
  }
  return m_channels.emplace(topic, m_writer.AddChannel(type->second, topic, Encoding)).first->second;
}

}  // namespace Tavi::EventTools
