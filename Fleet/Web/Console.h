// What the console answers to each address.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "Fleet/Web/EventIndex.h"
#include "Fleet/Web/Gate.h"
#include "Fleet/Web/Http.h"
#include "Fleet/Web/RecorderLink.h"

namespace Tavi::Web {

/// Borrows its parts for its life. Thread-safe; a call may wait for the recorder or a disk.
class Console {
 public:
  /// The body of /api/live; null, with one sentence, when there is no place.
  using LiveMaker = std::function<std::unique_ptr<BodySource>(std::string& problem)>;

  Console(const Gate& gate, RecorderLink& recorder, EventIndex& index, LiveMaker makeLive);

  [[nodiscard]] Response Handle(const Request& request) const;

 private:
  [[nodiscard]] Response Answer(const Request& request) const;
  [[nodiscard]] Response AnswerAsset(const Request& request, std::string_view name) const;
  [[nodiscard]] Response AnswerEvents(const Request& request) const;
  [[nodiscard]] Response AnswerStatus() const;
  [[nodiscard]] Response AnswerSettings() const;
  [[nodiscard]] Response AnswerLive() const;
  [[nodiscard]] Response TakeEvent(const Request& request) const;
  /// `rest` is what stands behind "/api/events/": the id, and what is asked of it.
  [[nodiscard]] Response HandleEvent(const Request& request, std::string_view rest) const;
  [[nodiscard]] Response DescribeEvent(const EventSummary& event) const;
  [[nodiscard]] Response Archive(const EventSummary& event) const;
  [[nodiscard]] Response Change(const RecorderLink::Json& command) const;
  /// `rest` is what stands behind "/events/": the id and a file, or nothing for its page.
  [[nodiscard]] Response ShowEvent(const Request& request, std::string_view rest) const;
  [[nodiscard]] std::string GetDirectory(const EventSummary& event) const;

  const Gate& m_gate;
  RecorderLink& m_recorder;
  EventIndex& m_index;
  const LiveMaker m_makeLive;
};

}  // namespace Tavi::Web
