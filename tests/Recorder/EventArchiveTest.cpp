// What a process that died has left on the working disk is saved for the next start.
#include "Recorder/Service/EventArchive.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "Kbase/Util/Naming.h"
#include "Support/Fixtures.h"

namespace Tavi::Recorder {
namespace {

class EventArchiveTest : public Tavi::Testing::TempDirTest {};

// Catches the few seconds of sound that the preview is made of in the place of the event's own.
TEST_F(EventArchiveTest, OfWhatADeadProcessLeftTheCollectorsOwnFilesAreSaved) {
  StorageSettings settings;
  settings.eventsDir = m_dir + "events/";
  settings.workDir = m_dir + "work/";
  settings.backupDir = m_dir + "backup/";
  settings.minFreeBytes = 0;
  const std::string uid = Kbase::Util::NewUid();
  const std::vector<std::string> collected{"video1_" + uid + ".h264", "video0_" + uid + ".mp4", "gps_" + uid + ".dat",
                                           "thumbnail1_" + uid + ".jpg"};
  const std::vector<std::string> others{"video0_" + uid + ".mp4.part", "preview_" + uid + ".h264",
                                        "preview_" + uid + ".jpg", "audio_preview_preview_" + uid + ".h264.mp3"};
  const std::string dir = settings.workDir + "0123abcd/";
  std::filesystem::create_directories(dir);
  for (const auto* names : {&collected, &others}) {
    for (const auto& name : *names) std::ofstream(dir + name) << name;
  }
  EventArchive archive(settings);
  std::string problem;
  ASSERT_TRUE(archive.Open(problem)) << problem;
  std::vector<std::string> saved;
  for (const auto& file : std::filesystem::directory_iterator(settings.backupDir)) {
    saved.push_back(Tavi::Testing::ReadFile(file.path()));
    const std::string prefix = saved.back().substr(0, saved.back().find('_') + 1);
    EXPECT_THAT(file.path().filename().string(), testing::StartsWith(prefix));
    EXPECT_EQ(file.path().extension(), std::filesystem::path(saved.back()).extension());
  }
  EXPECT_THAT(saved, testing::UnorderedElementsAreArray(collected));
  EXPECT_FALSE(std::filesystem::exists(dir));
}

}  // namespace
}  // namespace Tavi::Recorder
