// Writes an MCAP file: messages of several channels along one time line, with indices to find them by.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Tools/Mcap/RecordBytes.h"

namespace Tavi::Mcap {

/// What lies beside the messages: a file of its own within the file.
struct Attachment {
  std::string_view name;
  std::string_view mediaType;
  /// Unix time in nanoseconds.
  std::uint64_t timeNs = 0;
  std::string_view content;
};

/// Builds the whole file in memory, major version 0 of the format (https://mcap.dev): chunks of about a megabyte,
/// an index of the messages behind each, and a summary at the end by which readers find what they want without reading
/// the rest. Every checksum is there. Chunks are not compressed: an event is video to 99 hundredths, which nothing
/// makes smaller, and a reader needs no decompressor then. Reentrant.
class McapWriter {
 public:
  /// `library`: what wrote the file.
  explicit McapWriter(std::string_view library);

  /// Room for the whole file, so that it is not moved while it grows.
  void Reserve(std::size_t bytes) { m_file.reserve(bytes); }

  /// A type of message; its number, from 1 on. Schemas and channels come before the messages that need them.
  std::uint16_t AddSchema(std::string_view name, std::string_view encoding, std::string_view data);
  /// A stream of messages of the schema `schema`; its number, from 1 on.
  std::uint16_t AddChannel(std::uint16_t schema, std::string_view topic, std::string_view messageEncoding);
  /// `timeNs`: Unix time. Whoever adds messages in their order of time gets a file that is read from front to back.
  void AddMessage(std::uint16_t channel, std::uint64_t timeNs, std::string_view data);
  void AddAttachment(const Attachment& attachment);
  void AddMetadata(std::string_view name, const std::map<std::string, std::string>& values);

  /// The whole file. Once, and nothing behind it.
  std::string Finish();

 private:
  enum class Op : std::uint8_t;
  /// First and last time of a number of messages.
  struct Span {
    std::uint64_t firstNs = 0;
    std::uint64_t lastNs = 0;
  };
  /// The chunk that is being filled.
  struct Chunk {
    RecordBytes records;
    Span span;
    std::uint64_t messages = 0;
    /// By channel: time and place of each message.
    std::map<std::uint16_t, RecordBytes> index;
  };

  static void Note(Span& span, std::uint64_t timeNs, bool isFirst);
  void Put(Op op, const RecordBytes& content);
  static void PutInto(RecordBytes& target, Op op, std::string_view content);
  void CloseChunk();
  void IndexChunk(std::uint64_t start, std::uint64_t length, const Chunk& chunk);
  RecordBytes BuildStatistics() const;
  void WriteSummary();

  std::string m_file;
  Chunk m_chunk;
  Span m_span;
  std::map<std::uint16_t, std::uint64_t> m_counts;
  /// Records of the summary, each kind on its own as the format wants them.
  RecordBytes m_schemas;
  RecordBytes m_channels;
  RecordBytes m_chunkIndices;
  RecordBytes m_attachmentIndices;
  RecordBytes m_metadataIndices;
  std::uint16_t m_schemaCount = 0;
  std::uint16_t m_channelCount = 0;
  std::uint32_t m_chunkCount = 0;
  std::uint32_t m_attachmentCount = 0;
  std::uint32_t m_metadataCount = 0;
  std::uint64_t m_messageCount = 0;
};

}  // namespace Tavi::Mcap
