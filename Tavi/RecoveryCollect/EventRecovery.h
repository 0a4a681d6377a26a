// Finishes one event that a power failure has interrupted.
#pragma once

#include <cstdint>
#include <string>

#include "Tavi/RecoveryCollect/RecoveryAttempts.h"
#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"
#include "Tavi/RecoveryCollect/RestoreDirectory.h"
#include "Tavi/RecoveryCollect/WorkDirectory.h"

namespace Tavi::RecoveryCollect {

/// Makes the products of an event one by one. Each is whole and on the disk before its source is removed, and depends
/// only on what outlives an interruption, so that a second run makes the same: a companion goes along with its product,
/// where the products that are still to be made find it. Borrows its arguments. Thread-bound.
class EventRecovery {
 public:
  EventRecovery(const RecoveryCollectInput& input, const WorkDirectory& work, RecoveryAttempts& attempts,
                const EventSources& event);

  struct Result {
    /// Every file of the event has become a product.
    bool isRecovered = false;
    /// Another run cannot make more of it.
    bool isComplete = false;
  };
  /// A file that has not become a product stays, after a line in the log that names it, and does not keep the others
  /// back.
  Result Recover();

 private:
  using Type = PipelineCollect::PipelineCollectType;

  RecoveryAttempts::Result TryFile(Type type, const std::string& source);
  bool RecoverFile(Type type, const std::string& source) const;
  bool RecoverVideo(Type type, const std::string& source) const;
  bool Mux(Type type, const std::string& source, std::string& mp4Path) const;
  [[nodiscard]] std::int64_t GetSoundDelayNs() const;
  bool MoveTimes(Type type) const;
  void RemoveSpares() const;
  [[nodiscard]] std::string FindSound() const;
  [[nodiscard]] std::string FindTimes(Type type) const;
  [[nodiscard]] std::string GetName(const std::string& source) const;
  [[nodiscard]] std::string GetProductPath(Type type) const;

  const RecoveryCollectInput& m_input;
  const WorkDirectory& m_work;
  RecoveryAttempts& m_attempts;
  const EventSources& m_event;
};

}  // namespace Tavi::RecoveryCollect
