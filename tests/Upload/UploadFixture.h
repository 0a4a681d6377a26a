// Events, a far side in a directory, and an rclone that does on the way there what the test wants.
#pragma once

#include <gmock/gmock.h>

#include <cstdlib>
#include <sstream>

#include "Control/Served.h"
#include "EventStore/StoreFixture.h"
#include "Fleet/Upload/Uploader.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Upload {

using EventStore::EventDescription;
using Testing::ReadFile;

class UploadTest : public EventStore::StoreTest {
 protected:
  void SetUp() override {
    StoreTest::SetUp();
    if (std::system("command -v rclone > /dev/null") != 0) GTEST_SKIP() << "rclone is missing";
    m_store = std::make_unique<EventStore::EventStore>(m_events, EventStore::RetentionLimits{});
    auto identity = EventStore::Identity::LoadOrMake(m_dir + "identity.pem", m_problem);
    ASSERT_TRUE(identity) << m_problem;
    m_store->SignWith(*identity);
    ASSERT_TRUE(m_store->Open(m_problem)) << m_problem;
    m_settings.eventsDir = m_events;
    m_settings.controlSocket = m_dir + "c.sock";
    m_settings.remote = m_dir + "far";
    m_settings.rcloneConfig = "";
    m_settings.rclone = m_dir + "rclone";
    m_settings.stateDir = m_dir + "state/";
    m_settings.statusFile = m_dir + "status.json";
    m_settings.metered = "no";
    m_settings.retryFirstSeconds = m_settings.retryMaxSeconds = 0.1;
    m_settings.attempts = 2;
    Wrap("");
  }
  /// A script in rclone's place, which notes what it is asked for ($1, the words behind our common options) and the
  /// files of its standard input. `before` may answer itself; `after` acts when rclone has ended.
  void Wrap(const std::string& before, const std::string& after = "") const {
    std::ofstream(m_dir + "rclone")
        << "#!/bin/sh\nfor word; do case $word in --*) ;; *) break ;; esac; shift; done\n"
        << "far=" << m_dir << "far\nlist=" << m_dir << "list.$$\ncat > $list\n"
        << "echo \"$1 $(case $1 in rcat) basename $2 ;; *) grep -o '[a-z0-9_]*[.].*' $list | sort | tr '\\n' ' ' ;; "
           "esac)\" >> "
        << m_dir << "asked\n"
        << before << "\nrclone --config= --log-level=ERROR --retries=1 \"$@\" < $list\nstatus=$?\nrm $list\n"
        << after << "\nexit $status\n";
    std::filesystem::permissions(m_dir + "rclone", std::filesystem::perms::owner_all);
  }
  /// Name of an event of that number with one file of each part.
  std::string Save(int number, bool isProtected = false) {
    EventDescription event = MakeEvent("0000000" + std::to_string(number), number);
    const std::vector<EventStore::SourceFile> sources{
        MakeSource("VideoCamera1", "video1.mp4", std::string(70'000, 'v')),
        MakeSource("VideoCamera1Stream", "video1.h264", "stream"),
        MakeSource("VideoCamera1Times", "video1.times", "times"), MakeSource("ThumbnailCamera1", "still.jpg", "still"),
        MakeSource("Gps", "gps.dat", "position")};
    EXPECT_EQ(m_store->Save(event, sources, isProtected, m_eventDir, m_problem), EventStore::SaveResult::Saved);
    std::ofstream(m_eventDir + "/index.html") << "page";
    return std::filesystem::path(m_eventDir).filename();
  }
  /// As a process of its own would: whether nothing is left over.
  bool Once() {
    const StopSignal stop;
    Uploader uploader(m_settings, stop);
    EXPECT_TRUE(uploader.Open(m_problem)) << m_problem;
    std::filesystem::remove(m_dir + "asked");
    return uploader.Run(true);
  }
  std::string Far(const std::string& event, const std::string& file) const {
    return ReadFile(m_dir + "far/" + event + "/" + file);
  }
  /// What rclone was asked for, one a line, but for looks at what is there.
  std::string GetChanges() const {
    std::istringstream lines(ReadFile(m_dir + "asked"));
    std::string changes;
    for (std::string line; std::getline(lines, line);) {
      const bool isChange = line.starts_with("copy") || line.starts_with("rcat");
      if (isChange) changes += line.substr(0, line.find_last_not_of(' ') + 1) + "\n";
    }
    return changes;
  }
  Kbase::Json::Object GetStatus() const { return Kbase::Json::Parse(ReadFile(m_dir + "status.json")); }
  /// One byte of a file on the far side becomes another one.
  void Spoil(const std::string& event, const std::string& file) const {
    std::fstream(m_dir + "far/" + event + "/" + file, std::ios::in | std::ios::out | std::ios::binary).put('#');
  }

  UploadSettings m_settings;
  std::unique_ptr<EventStore::EventStore> m_store;
};

}  // namespace Tavi::Upload
