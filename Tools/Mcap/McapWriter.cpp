// Writes an MCAP file: messages of several channels along one time line, with indices to find them by.
#include "Tools/Mcap/McapWriter.h"

extern "C" {
#include <libavutil/crc.h>
}

#include <algorithm>
#include <utility>

namespace Tavi::Mcap {
namespace {

constexpr std::string_view Magic{"\x89MCAP0\r\n", 8};
/// A reader that wants one moment reads this much of each stream; an index entry takes 16 bytes a message.
constexpr std::size_t ChunkBytes = 1'000'000;
constexpr std::string_view NoCompression;

}  // namespace

/// The kinds of records (https://mcap.dev).
enum class McapWriter::Op : std::uint8_t {
  Header = 1,
  Footer,
  Schema,
  Channel,
  Message,
  Chunk,
  MessageIndex,
  ChunkIndex,
  Attachment,
  AttachmentIndex,
  Statistics,
  Metadata,
  MetadataIndex,
  SummaryOffset,
  DataEnd,
};

std::uint32_t GetCrc32(std::string_view bytes, std::string_view more) {
  const AVCRC* table = av_crc_get_table(AV_CRC_32_IEEE_LE);
  std::uint32_t crc = ~std::uint32_t{0};
  for (const auto piece : {bytes, more}) {
    // It looks in front of an end that is nowhere.
    if (!piece.empty()) crc = av_crc(table, crc, reinterpret_cast<const std::uint8_t*>(piece.data()), piece.size());
  }
  return ~crc;
}

McapWriter::McapWriter(std::string_view library) : m_file(Magic) {
  RecordBytes header;
  Put(Op::Header, header.AddText("").AddText(library));
}

std::uint16_t McapWriter::AddSchema(std::string_view name, std::string_view encoding, std::string_view data) {
  RecordBytes record;
  record.Add(++m_schemaCount).AddText(name).AddText(encoding).AddText(data);
  PutInto(m_schemas, Op::Schema, record.Get());
  PutInto(m_chunk.records, Op::Schema, record.Get());
  return m_schemaCount;
}

std::uint16_t McapWriter::AddChannel(std::uint16_t schema, std::string_view topic, std::string_view messageEncoding) {
  RecordBytes record;
  record.Add(++m_channelCount).Add(schema).AddText(topic).AddText(messageEncoding).AddList({});
  PutInto(m_channels, Op::Channel, record.Get());
  PutInto(m_chunk.records, Op::Channel, record.Get());
  return m_channelCount;
}

void McapWriter::AddMessage(std::uint16_t channel, std::uint64_t timeNs, std::string_view data) {
  m_chunk.index[channel].Add(timeNs).Add(std::uint64_t{m_chunk.records.Get().size()});
  RecordBytes head;
  const auto sequence = static_cast<std::uint32_t>(m_counts[channel]++);
  head.Add(channel).Add(sequence).Add(timeNs).Add(timeNs);
  m_chunk.records.Add(Op::Message).Add(std::uint64_t{head.Get().size() + data.size()});
  m_chunk.records.AddRaw(head.Get()).AddRaw(data);
  Note(m_chunk.span, timeNs, m_chunk.messages++ == 0);
  Note(m_span, timeNs, m_messageCount++ == 0);
  if (m_chunk.records.Get().size() >= ChunkBytes) CloseChunk();
}

void McapWriter::AddAttachment(const Attachment& attachment) {
  CloseChunk();
  RecordBytes content;
  content.Add(attachment.timeNs).Add(attachment.timeNs).AddText(attachment.name).AddText(attachment.mediaType);
  content.Add(std::uint64_t{attachment.content.size()}).AddRaw(attachment.content);
  content.Add(GetCrc32(content.Get()));
  const std::uint64_t start = m_file.size();
  Put(Op::Attachment, content);
  RecordBytes index;
  index.Add(start).Add(m_file.size() - start).Add(attachment.timeNs).Add(attachment.timeNs);
  index.Add(std::uint64_t{attachment.content.size()}).AddText(attachment.name).AddText(attachment.mediaType);
  PutInto(m_attachmentIndices, Op::AttachmentIndex, index.Get());
  ++m_attachmentCount;
}

void McapWriter::AddMetadata(std::string_view name, const std::map<std::string, std::string>& values) {
  CloseChunk();
  RecordBytes map;
  for (const auto& [key, value] : values) map.AddText(key).AddText(value);
  RecordBytes content;
  const std::uint64_t start = m_file.size();
  Put(Op::Metadata, content.AddText(name).AddList(map));
  RecordBytes index;
  PutInto(m_metadataIndices, Op::MetadataIndex, index.Add(start).Add(m_file.size() - start).AddText(name).Get());
  ++m_metadataCount;
}

std::string McapWriter::Finish() {
  CloseChunk();
  RecordBytes end;
  Put(Op::DataEnd, end.Add(GetCrc32(m_file)));
  WriteSummary();
  m_file += Magic;
  return std::move(m_file);
}

void McapWriter::Note(Span& span, std::uint64_t timeNs, bool isFirst) {
  span.firstNs = isFirst ? timeNs : std::min(span.firstNs, timeNs);
  span.lastNs = isFirst ? timeNs : std::max(span.lastNs, timeNs);
}

void McapWriter::Put(Op op, const RecordBytes& content) {
  RecordBytes head;
  m_file += head.Add(op).Add(std::uint64_t{content.Get().size()}).Get();
  m_file += content.Get();
}

void McapWriter::PutInto(RecordBytes& target, Op op, std::string_view content) {
  target.Add(op).Add(std::uint64_t{content.size()}).AddRaw(content);
}

void McapWriter::CloseChunk() {
  if (m_chunk.records.IsEmpty()) return;
  const Chunk chunk = std::exchange(m_chunk, {});
  const std::string_view records = chunk.records.Get();
  RecordBytes head;
  head.Add(chunk.span.firstNs).Add(chunk.span.lastNs).Add(std::uint64_t{records.size()}).Add(GetCrc32(records));
  head.AddText(NoCompression).Add(std::uint64_t{records.size()});
  const std::uint64_t start = m_file.size();
  RecordBytes length;
  m_file += length.Add(Op::Chunk).Add(std::uint64_t{head.Get().size() + records.size()}).Get();
  m_file += head.Get();
  m_file += records;
  IndexChunk(start, m_file.size() - start, chunk);
  ++m_chunkCount;
}

/// Puts the index of the chunk's messages behind it, and that of the chunk into the summary.
void McapWriter::IndexChunk(std::uint64_t start, std::uint64_t length, const Chunk& chunk) {
  const std::uint64_t indexStart = m_file.size();
  RecordBytes offsets;
  for (const auto& [channel, places] : chunk.index) {
    offsets.Add(channel).Add(std::uint64_t{m_file.size()});
    RecordBytes content;
    Put(Op::MessageIndex, content.Add(channel).AddList(places));
  }
  RecordBytes index;
  index.Add(chunk.span.firstNs).Add(chunk.span.lastNs).Add(start).Add(length).AddList(offsets);
  index.Add(m_file.size() - indexStart).AddText(NoCompression);
  index.Add(std::uint64_t{chunk.records.Get().size()}).Add(std::uint64_t{chunk.records.Get().size()});
  PutInto(m_chunkIndices, Op::ChunkIndex, index.Get());
}

RecordBytes McapWriter::BuildStatistics() const {
  RecordBytes counts;
  for (const auto& [channel, count] : m_counts) counts.Add(channel).Add(count);
  RecordBytes statistics;
  statistics.Add(m_messageCount).Add(m_schemaCount).Add(std::uint32_t{m_channelCount}).Add(m_attachmentCount);
  statistics.Add(m_metadataCount).Add(m_chunkCount).Add(m_span.firstNs).Add(m_span.lastNs).AddList(counts);
  return statistics;
}

/// Summary, the places of its groups, footer: what readers begin with, from the end of the file.
void McapWriter::WriteSummary() {
  RecordBytes statistics;
  PutInto(statistics, Op::Statistics, BuildStatistics().Get());
  const std::pair<Op, const RecordBytes*> groups[] = {
      {Op::Schema, &m_schemas},
      {Op::Channel, &m_channels},
      {Op::Statistics, &statistics},
      {Op::ChunkIndex, &m_chunkIndices},
      {Op::MetadataIndex, &m_metadataIndices},
      {Op::AttachmentIndex, &m_attachmentIndices},
  };
  const std::uint64_t start = m_file.size();
  RecordBytes offsets;
  for (const auto& [op, records] : groups) {
    if (records->IsEmpty()) continue;
    RecordBytes offset;
    offset.Add(op).Add(std::uint64_t{m_file.size()}).Add(std::uint64_t{records->Get().size()});
    PutInto(offsets, Op::SummaryOffset, offset.Get());
    m_file += records->Get();
  }
  RecordBytes footer;
  footer.Add(start).Add(std::uint64_t{m_file.size()});
  m_file += offsets.Get();
  // The checksum covers the footer up to itself.
  RecordBytes head;
  head.Add(Op::Footer).Add(std::uint64_t{footer.Get().size() + sizeof(std::uint32_t)});
  head.AddRaw(footer.Get());
  const std::uint32_t crc = GetCrc32(std::string_view(m_file).substr(start), head.Get());
  m_file += head.Add(crc).Get();
}

}  // namespace Tavi::Mcap
