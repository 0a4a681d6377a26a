// Which events the broker has acknowledged.
#pragma once

#include <cstddef>
#include <set>
#include <string>
#include <vector>

#include "EventStore/EventList.h"

namespace Tavi::Mqtt {

/// A set of the events' names, kept in a small file that is replaced as a whole. Names and not the last one's time or
/// number: a clock may go back, a disk may be changed, and events need no signature. Thread-bound.
class AcknowledgedEvents {
 public:
  explicit AcknowledgedEvents(std::string file) : m_file(std::move(file)) {}

  enum class Loaded { Yes, None, Failed };
  /// None: there is no such file, nothing was ever acknowledged. A damaged one is put aside under the name ".damaged"
  /// and counts as empty, for an event twice is better than one that is lost; `problem` says so. Failed: it cannot be
  /// read, or nothing can be written there.
  [[nodiscard]] Loaded Load(std::string& problem);

  [[nodiscard]] bool Has(const std::string& name) const { return m_names.contains(name); }
  [[nodiscard]] std::size_t GetCount() const { return m_names.size(); }
  /// On the disk when it returns true; false, with the reason, when the disk refuses: in memory it is known all the
  /// same, and the next call writes it again.
  [[nodiscard]] bool Add(const std::vector<std::string>& names, std::string& problem);
  /// Forgets events that are no longer there when they have become many; a disk that is away for a while is not
  /// published again. The file follows with the next Add.
  void Forget(const std::vector<EventStore::EventEntry>& present);

 private:
  [[nodiscard]] bool Save(std::string& problem) const;

  const std::string m_file;
  std::set<std::string, std::less<>> m_names;
};

}  // namespace Tavi::Mqtt
