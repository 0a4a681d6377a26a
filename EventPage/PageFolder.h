// Keeps a page in each event's directory, and the list of all events beside them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace Tavi::EventTools {

/// One events directory: a static folder that any web server, file share or object store shows as it is. Pages are made
/// of complete events only and of nothing that is hidden; a page that cannot be made costs that page alone, is logged
/// once and tried again when the directory has changed. It looks at the directory, not at who writes there: what was
/// removed, copied or left without a page by an older recorder is found as well. Needs no lock. Thread-bound.
class PageFolder {
 public:
  /// `isHurried`: true ends Update before the next page; what is missing is made by a later one.
  PageFolder(std::string eventsDir, std::function<bool()> isHurried);

  /// Makes what is missing, the newest first, then the list. Where nothing has changed it only looks at the directory's
  /// time of modification. Waits for the disk; a page takes as long as reading the event's sensor files. Returns how
  /// many pages were made.
  int Update();

  /// The page of the event with that id, and its line in the list, are made anew by the next Update.
  void Renew(const std::string& id);

 private:
  struct Known {
    /// Of the event in the list.
    std::string row;
    bool hasPage = false;
  };

  bool HasChanged();
  void Forget(const std::vector<std::string>& present);
  bool Take(const std::string& name, Known& known);
  [[nodiscard]] bool HasPage(const std::string& name) const;
  void MakePage(const std::string& directory, Known& known);
  void WriteIndex();
  void Complain(const std::string& problem);

  const std::string m_eventsDir;
  const std::function<bool()> m_isHurried;
  /// By the names of the events' directories.
  std::map<std::string, Known, std::less<>> m_events;
  /// The directory's as of the last look; 0 for one that has to be looked at anew.
  std::int64_t m_changedNs = 0;
  /// Ids of events whose pages do not count.
  std::set<std::string> m_renewed;
  std::string m_index;
  std::string m_problem;
  int m_made = 0;
};

}  // namespace Tavi::EventTools
