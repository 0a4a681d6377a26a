// The recorder as a service, in the simulated car.
#pragma once

#include <csignal>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "Control/Served.h"
#include "EventStore/EventDescription.h"
#include "EventStore/EventList.h"
#include "Recorder/Program.h"
#include "Support/VideoDecode.h"

namespace Tavi::Testing {

using nlohmann::json;
using namespace Tavi::EventStore;

class ServiceTest : public ServiceProgramTest {
 protected:
  void SetUp() override {
    ServiceProgramTest::SetUp();
    WriteSettings(json::object());
  }
  void WriteSettings(const json& events, const json& pipeline = json::object()) const {
    std::ofstream(m_dir + "settings.json") << json::object({{"events", events},
                                                            {"pipeline", pipeline},
                                                            {"uploadStatusFile", m_dir + "upload.json"},
                                                            {"temperatureZone", m_dir + "zone"}});
  }
  void StartService() {
    // With a log file, as the logger then has its thread before anything else.
    m_child = Spawn({"run", "--simulate", "--config", m_dir + "settings.json", "--output", m_dir + "tavi", "--control",
                     m_dir + "ctl/socket", "--log", m_dir + "log"});
    ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["state"] == "recording"; })) << Err();
  }
  int EndService(int signal) {
    kill(m_child, signal);
    return Wait(std::exchange(m_child, 0));
  }
  std::string Ask(const std::string& line) const { return RawClient(m_dir + "ctl/socket").Ask(line + "\n"); }
  /// Every command that there is, as the recorder itself tells.
  std::vector<std::string> ListCommands() const {
    const std::string sentence = json::parse(Ask(R"({"command":"?"})"))["error"];
    std::vector<std::string> commands;
    std::istringstream words(sentence.substr(sentence.find("give ") + 5));
    for (std::string word; words >> word;) {
      if (word != "or") commands.push_back(word.substr(0, word.find(',')));
    }
    return commands;
  }
  std::vector<EventDescription> ReadEvents() const {
    std::vector<EventDescription> events;
    for (const auto& entry : ListEvents(m_dir + "tavi/events")) {
      std::string problem;
      const auto event = ReadEvent(m_dir + "tavi/events/" + entry.name, problem);
      EXPECT_TRUE(event) << problem;
      if (event) events.push_back(*event);
    }
    return events;
  }
  /// Names of metrics behind `mark`, but those of the sources.
  static std::set<std::string> ListMetrics(const std::string& text, const std::string& mark) {
    std::set<std::string> names;
    for (auto at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
      const auto begin = at + mark.size() - 5;
      const std::string name = text.substr(begin, text.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", begin) - begin);
      if (!name.starts_with("tavi_source_")) names.insert(name);
    }
    return names;
  }
  std::size_t CountFrames(const EventDescription& event, const std::string& type) const {
    for (const auto& file : event.files) {
      const std::string path = m_dir + "tavi/events/" + BuildEventDirName(event) + "/" + file.name;
      if (file.type == type) return DecodeVideo(path).frames.size();
    }
    return 0;
  }
};

}  // namespace Tavi::Testing
