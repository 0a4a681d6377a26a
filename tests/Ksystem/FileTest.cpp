// Files and directories: exact bytes, whole copies, and one clear line when the system refuses.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <limits>

#include "Kbase/Klog/Logger.h"
#include "Ksystem/DiskUtils/DiskBase.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"

namespace {

using Ksystem::DiskUtils::DiskBase;
using Ksystem::FileUtils::Kdir;
using Ksystem::FileUtils::Kfile;

class FileTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/tavi-file-XXXXXX";
    m_dir = std::string(mkdtemp(pattern)) + "/";
    Kbase::Klog::Logger::GetInstance().SetConsole(false);
    Kbase::Klog::Logger::GetInstance().SetObserver(
        [this](Kbase::Klog::Level, std::string_view line) { m_log += std::string(line) + "\n"; });
  }
  void TearDown() override {
    Kbase::Klog::Logger::GetInstance().SetObserver({});
    std::filesystem::remove_all(m_dir);
  }
  static std::string Read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  std::string m_dir;
  std::string m_log;
};

TEST_F(FileTest, RecordsAreLittleEndianAndBare) {
  FILE* file = std::fopen((m_dir + "f").c_str(), "wb");
  EXPECT_TRUE(Kfile::WriteInt(0x01020304, file));
  EXPECT_TRUE(Kfile::WriteInt(-2, file));
  EXPECT_TRUE(Kfile::WriteInt(std::numeric_limits<std::int32_t>::min(), file));
  EXPECT_TRUE(Kfile::WriteString("$GPRMC", file));
  EXPECT_TRUE(Kfile::WriteString("", file));
  std::fclose(file);
  EXPECT_EQ(Read(m_dir + "f"), std::string("\4\3\2\1\xFE\xFF\xFF\xFF\0\0\0\x80$GPRMC", 18));
  EXPECT_FALSE(Kfile::Write("x", 1, nullptr));
  FILE* full = std::fopen("/dev/full", "wb");
  std::setvbuf(full, nullptr, _IONBF, 0);
  EXPECT_FALSE(Kfile::WriteInt(1, full));
  std::fclose(full);
}

TEST_F(FileTest, StatAndRemoveTakeAMissingFileAsItIs) {
  std::ofstream(m_dir + "f") << "12345";
  Kfile file(m_dir + "f", true);
  EXPECT_TRUE(file.Stat());
  EXPECT_EQ(file.GetSize(), 5U);
  EXPECT_TRUE(file.Remove());
  EXPECT_TRUE(file.Remove());
  EXPECT_FALSE(file.Stat());
  EXPECT_EQ(m_log, "");
  EXPECT_FALSE(Kfile(m_dir + "f").Stat());
  EXPECT_NE(m_log.find("[ERROR][Ksystem] cannot look at " + m_dir + "f: No such file"), std::string::npos) << m_log;
  EXPECT_FALSE(Kfile(m_dir).Remove()) << "a directory is no file";
}

TEST_F(FileTest, ACopyIsWholeOrAbsent) {
  const std::string content(3'000'000, 'x');
  std::ofstream(m_dir + "f") << content;
  std::ofstream(m_dir + "old") << "old";
  Kfile file(m_dir + "f");
  EXPECT_FALSE(file.CopyTo(m_dir + "old", true));
  EXPECT_EQ(Read(m_dir + "old"), "old");
  EXPECT_TRUE(file.CopyTo(m_dir + "old", false));
  EXPECT_EQ(Read(m_dir + "old"), content);
  // A file that the kernel will not send by itself is read and written.
  EXPECT_TRUE(Kfile("/proc/self/cmdline").CopyTo(m_dir + "cmdline", false));
  EXPECT_EQ(Read(m_dir + "cmdline"), Read("/proc/self/cmdline"));
  EXPECT_FALSE(file.CopyTo(m_dir + "missing/f", false));
  EXPECT_FALSE(Kfile(m_dir + "none").CopyTo(m_dir + "g", false));
  EXPECT_FALSE(std::filesystem::exists(m_dir + "g"));

  std::filesystem::create_directory(m_dir + "full");
  if (mount("tmpfs", (m_dir + "full").c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "mounting needs root";
  m_log.clear();
  EXPECT_FALSE(file.CopyTo(m_dir + "full/f", false));
  EXPECT_TRUE(std::filesystem::is_empty(m_dir + "full"));
  EXPECT_NE(m_log.find("cannot copy " + m_dir + "f to " + m_dir + "full/f.part: No space left"), std::string::npos)
      << m_log;
  umount((m_dir + "full").c_str());
}

TEST_F(FileTest, DirectoriesAreMadeWithTheirParents) {
  EXPECT_TRUE(Kdir(m_dir + "a/b//c/").Create());
  EXPECT_TRUE(Kdir(m_dir + "a/b/c").Create());
  EXPECT_TRUE(std::filesystem::is_directory(m_dir + "a/b/c"));
  EXPECT_TRUE(Kdir::Sync(m_dir + "a"));
  EXPECT_EQ(m_log, "");
  std::ofstream(m_dir + "f") << "x";
  EXPECT_FALSE(Kdir(m_dir + "f").Create());
  EXPECT_FALSE(Kdir(m_dir + "f/g").Create());
  EXPECT_FALSE(Kdir("").Create());
  EXPECT_FALSE(Kdir::Sync(m_dir + "none"));
  EXPECT_EQ(std::count(m_log.begin(), m_log.end(), '\n'), 4);
}

TEST_F(FileTest, DiskSpaceIsThatOfTheDiskUnderThePath) {
  DiskBase disk(m_dir);
  ASSERT_TRUE(disk.LoadDiskInfo());
  const auto space = std::filesystem::space(m_dir);
  EXPECT_NEAR(disk.GetTotalMB(), static_cast<double>(space.capacity) / 1048576.0, 0.001);
  EXPECT_NEAR(disk.GetFreeMB(), static_cast<double>(space.available) / 1048576.0, 64.0);
  EXPECT_FALSE(DiskBase(m_dir + "none").LoadDiskInfo());
}

}  // namespace
