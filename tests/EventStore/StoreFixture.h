// An events directory, products to put into it, and a look at what is there.
#pragma once

#include <fstream>
#include <set>

#include "EventStore/EventStore.h"
#include "Support/Fixtures.h"

namespace Tavi::EventStore {

class StoreTest : public Testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    m_events = m_dir + "events";
    m_ram = m_dir + "ram/";
    std::filesystem::create_directory(m_ram);
  }

  SourceFile MakeSource(const std::string& type, const std::string& name, const std::string& content) {
    std::ofstream(m_ram + name) << content;
    return {type, m_ram + name};
  }
  static EventDescription MakeEvent(const std::string& id, int second = 5) {
    EventDescription event;
    event.id = id;
    event.timeMs = 1'795'268'400'123 + second * 1000;  // 2026-11-21T13:40:00.123Z
    return event;
  }
  /// Commits one event with a single file of `bytes`.
  void AddEvent(const std::string& id, int second, std::size_t bytes) {
    EventDescription event = MakeEvent(id, second);
    const SourceFile source = MakeSource("Gps", "gps.dat", std::string(bytes, 'g'));
    EXPECT_TRUE(EventWriter(m_events).Commit(event, {source}, false, m_eventDir, m_problem)) << m_problem;
  }
  /// Names in a directory, hidden ones included, one behind the other.
  static std::string List(const std::string& dir) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) names.insert(entry.path().filename());
    std::string all;
    for (const auto& name : names) all += name + " ";
    return all;
  }

  std::string m_events;
  std::string m_ram;
  std::string m_eventDir;
  std::string m_problem;
};

}  // namespace Tavi::EventStore
