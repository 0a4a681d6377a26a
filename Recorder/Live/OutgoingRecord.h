// One ring entry on its way into one client's socket.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Control/LiveProtocol.h"
#include "Kbase/Pipeline/IPipelineElement.h"
#include "Tavi/GstUtil/BufferMap.h"
#include "Tavi/Pipeline/PipelineType.h"
#include "Tavi/Video/StreamSetup.h"

namespace Tavi::Recorder::Live {

/// Holds the entry and its mapping until the last byte is written, for these go from there to the socket; only sensors'
/// entries become text of its own. Thread-bound.
class OutgoingRecord {
 public:
  using Entry = Kbase::Pipeline::IPipelineElement::Entry;
  enum class Sent { All, Part, Failed };

  /// Takes an entry of a source of that type, which is stream number `stream` of its client. False, and nothing is
  /// there to send, for an entry without usable bytes.
  [[nodiscard]] bool Load(const Entry& entry, Pipeline::PipelineType type, std::uint8_t stream, bool isAfterGap);
  /// Nothing is there to send.
  [[nodiscard]] bool IsEmpty() const { return m_parts.empty(); }
  /// Writes as much as the non-blocking `socket` takes; `sentBytes` is how much that was. Lets go of the entry with All
  /// and Failed.
  Sent Send(int socket, std::size_t& sentBytes);

 private:
  [[nodiscard]] bool LoadParts(const Kbase::Pipeline::IPipelineCbElement& entry, Pipeline::PipelineType type);
  [[nodiscard]] bool LoadAccessUnit(const Kbase::Pipeline::IPipelineCbElement& entry);
  [[nodiscard]] bool LoadText(Pipeline::PipelineType type);
  void Add(std::span<const std::uint8_t> bytes);
  void Pass(std::size_t bytes);
  void Clear();

  Entry m_entry;
  std::optional<GstUtil::BufferMap> m_map;
  /// The parameter sets that go before an IDR picture without.
  std::shared_ptr<const Video::StreamSetup> m_setup;
  std::string m_text;
  LiveHeaderBuffer m_header{};
  /// All of it in its order; they point to the members above.
  std::vector<iovec> m_parts;
  /// The first one that is not written yet.
  std::size_t m_part = 0;
};

}  // namespace Tavi::Recorder::Live
