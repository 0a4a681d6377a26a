// Finishes one event that a power failure has interrupted.
#pragma once

#include <string>

#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"
#include "Tavi/RecoveryCollect/RestoreDirectory.h"
#include "Tavi/RecoveryCollect/WorkDirectory.h"

namespace Tavi::RecoveryCollect {

/// Makes the products of an event one by one. Each is whole and on the disk before its source is removed, and depends
/// only on what outlives an interruption, so that a second run makes the same. Borrows its arguments. Thread-bound.
class EventRecovery {
 public:
  EventRecovery(const RecoveryCollectInput& input, const WorkDirectory& work, const EventSources& event);

  /// True when every file of the event has become a product. One that has not stays, after a line in the log that names
  /// it, and does not keep the others back.
  bool Recover();

 private:
  bool RecoverFile(PipelineCollect::PipelineCollectType type, const std::string& source) const;
  bool RecoverVideo(PipelineCollect::PipelineCollectType type, const std::string& source) const;
  bool Mux(const std::string& source, float fps, std::string& mp4Path) const;
  [[nodiscard]] std::string FindSound() const;
  [[nodiscard]] std::string GetProductPath(PipelineCollect::PipelineCollectType type) const;

  const RecoveryCollectInput& m_input;
  const WorkDirectory& m_work;
  const EventSources& m_event;
};

}  // namespace Tavi::RecoveryCollect
