// Files and directories: exact bytes, whole copies, and one clear line when the system refuses.
#include <gtest/gtest.h>
#include <sys/mount.h>

#include <fstream>

#include "Ksystem/DiskUtils/DiskBase.h"
#include "Ksystem/FileUtils/AsideFile.h"
#include "Ksystem/FileUtils/Kdir.h"
#include "Ksystem/FileUtils/Kfile.h"
#include "Support/Fixtures.h"

namespace {

using namespace Ksystem::FileUtils;
using Ksystem::DiskUtils::DiskBase;
using Tavi::Testing::ReadFile;

class FileTest : public Tavi::Testing::TempDirTest {};

TEST_F(FileTest, RecordsAreLittleEndianAndBare) {
  FILE* file = std::fopen((m_dir + "f").c_str(), "wb");
  EXPECT_TRUE(Kfile::WriteInt(0x01020304, file));
  EXPECT_TRUE(Kfile::WriteInt(-2, file));
  EXPECT_TRUE(Kfile::WriteString("$GPRMC", file));
  EXPECT_TRUE(Kfile::WriteString("", file));
  std::fclose(file);
  EXPECT_EQ(ReadFile(m_dir + "f"), "\4\3\2\1\xFE\xFF\xFF\xFF$GPRMC");
  EXPECT_FALSE(Kfile::Write("x", 1, nullptr));
  FILE* full = std::fopen("/dev/full", "wb");
  std::setvbuf(full, nullptr, _IONBF, 0);
  EXPECT_FALSE(Kfile::WriteInt(1, full));
  std::fclose(full);
}

TEST_F(FileTest, ACopyIsWholeOrAbsent) {
  const std::string content(3'000'000, 'x');
  std::ofstream(m_dir + "f") << content;
  std::ofstream(m_dir + "old") << "old";
  Kfile file(m_dir + "f");
  EXPECT_FALSE(file.CopyTo(m_dir + "old", true));
  EXPECT_EQ(ReadFile(m_dir + "old"), "old");
  EXPECT_TRUE(file.CopyTo(m_dir + "old", false));
  EXPECT_EQ(ReadFile(m_dir + "old"), content);
  // A file that the kernel will not send by itself is read and written.
  EXPECT_TRUE(Kfile("/proc/self/cmdline").CopyTo(m_dir + "cmdline", false));
  EXPECT_EQ(ReadFile(m_dir + "cmdline"), ReadFile("/proc/self/cmdline"));
  EXPECT_FALSE(file.CopyTo(m_dir + "missing/f", false));
  EXPECT_FALSE(Kfile(m_dir + "none").CopyTo(m_dir + "g", false));
  EXPECT_FALSE(std::filesystem::exists(m_dir + "g"));

  const std::string full = m_dir + "full";
  std::filesystem::create_directory(full);
  if (mount("tmpfs", full.c_str(), "tmpfs", 0, "size=64k") != 0) GTEST_SKIP() << "nothing can be mounted";
  EXPECT_FALSE(file.CopyTo(full + "/f", false));
  EXPECT_TRUE(std::filesystem::is_empty(full));
  EXPECT_EQ(CountLogged("cannot copy " + m_dir + "f to " + full + "/f.part: No space left"), 1) << GetLog();
  EXPECT_FALSE(file.CopyTo(full + "/f", false, true));
  EXPECT_EQ(ReadFile(full + "/f.part"), std::string(64 << 10, 'x')) << "what fits is kept";
  umount(full.c_str());
}

TEST_F(FileTest, AFileMadeAsideTakesItsNameWholeOrLeavesWhatStoodThere) {
  const std::string path = m_dir + "f";
  const std::string aside = path + ".part";
  std::ofstream(path) << "old";
  {
    AsideFile file(path);
    ASSERT_TRUE(file.Open());
    EXPECT_TRUE(WriteAll(file.GetFd(), "half", 4));
    EXPECT_EQ(ReadFile(aside), "half");
  }
  EXPECT_FALSE(std::filesystem::exists(aside)) << "what is half is removed";
  for (const std::string kept : {"", "half"}) {
    AsideFile file(path);
    std::ofstream(aside) << kept;
    file.Keep();
  }
  EXPECT_EQ(ReadFile(aside), "half") << "unless it is told to stay";
  EXPECT_EQ(ReadFile(path), "old");
  {
    AsideFile file(path);
    EXPECT_TRUE(file.Commit()) << "written by its name";
  }
  EXPECT_EQ(ReadFile(path), "half");
  EXPECT_EQ(CountLogged(""), 0) << GetLog();
  AsideFile none(m_dir + "none");
  EXPECT_FALSE(none.Commit());
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, MissingFilesDirectoriesAndDisksAreToldFromPresentOnes) {
  std::ofstream(m_dir + "f") << "12345";
  Kfile file(m_dir + "f", true);
  EXPECT_TRUE(file.Stat());
  EXPECT_EQ(file.GetSize(), 5U);
  EXPECT_FALSE(Kdir(m_dir + "f").Create()) << "a file stands in the way";
  EXPECT_FALSE(Kdir(m_dir + "f/g").Create());
  EXPECT_FALSE(Kdir("").Create());
  EXPECT_FALSE(Kdir::Sync(m_dir + "none"));
  EXPECT_EQ(CountLogged(""), 4) << GetLog();

  EXPECT_TRUE(file.Remove());
  EXPECT_FALSE(file.Stat());
  EXPECT_TRUE(Kdir(m_dir + "a/b//c/").Create());
  EXPECT_TRUE(Kdir(m_dir + "a/b/c").Create());
  EXPECT_TRUE(Kdir::Sync(m_dir + "a/b/c"));
  EXPECT_EQ(CountLogged(""), 4) << GetLog();
  EXPECT_FALSE(Kfile(m_dir).Remove()) << "a directory is no file";

  DiskBase disk(m_dir);
  ASSERT_TRUE(disk.LoadDiskInfo());
  const auto space = std::filesystem::space(m_dir);
  EXPECT_NEAR(disk.GetTotalMB(), static_cast<double>(space.capacity) / 1048576.0, 0.001);
  EXPECT_NEAR(disk.GetFreeMB(), static_cast<double>(space.available) / 1048576.0, 64.0);
  EXPECT_FALSE(DiskBase(m_dir + "none").LoadDiskInfo());
}

}  // namespace
