// The base of every ring entry.
#pragma once

#include <cstdint>

namespace Kbase::Pipeline {

/// One entry of a ring: immutable once added, shared by the ring and any reader that fetched it.
class IPipelineCbElement {
 public:
  explicit IPipelineCbElement(std::uint64_t id = 0) : frameId(id) {}
  virtual ~IPipelineCbElement() = default;

  /// True when a decoder can start at this entry. Entries of streams without key frames all can.
  [[nodiscard]] virtual bool IsKeyFrame() const { return true; }

  IPipelineCbElement(const IPipelineCbElement&) = delete;
  IPipelineCbElement& operator=(const IPipelineCbElement&) = delete;

  /// Consecutive per source, the first is 0.
  const std::uint64_t frameId;
};

}  // namespace Kbase::Pipeline
