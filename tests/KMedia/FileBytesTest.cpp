// A file's bytes, wherever it lies.
#include "KMedia/FFMpeg/FileBytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include "Support/Fixtures.h"

namespace {

using KMedia::FileBytes;

class FileBytesTest : public Tavi::Testing::TempDirTest {};

// A recovery that ends with its process, and again at each start, because pages of a file cannot be had: a sector that
// is unreadable, or here a file that is gone behind its reader's back.
TEST_F(FileBytesTest, WhatLiesOnADiskIsReadOnce) {
  const std::string path = m_dir + "file";
  std::ofstream(path) << std::string(3'000'000, 'b');
  FileBytes file;
  ASSERT_TRUE(file.Load(path));
  ASSERT_EQ(file.Get().size(), 3'000'000U);
  EXPECT_EQ(std::ranges::count(file.Get(), 'b'), 3'000'000);
  if (std::system(("test $(stat -f -c %T " + m_dir + ") = tmpfs").c_str()) == 0) GTEST_SKIP() << "no disk";
  std::filesystem::resize_file(path, 0);
  EXPECT_EQ(std::ranges::count(file.Get(), 'b'), 3'000'000);
}

TEST_F(FileBytesTest, WhatLiesInMemoryAndWhatIsEmptyOrMissing) {
  const std::string path = "/dev/shm/tavi-bytes-" + std::to_string(getpid());
  std::ofstream(path) << "bytes";
  FileBytes file;
  EXPECT_TRUE(file.Load(path));
  EXPECT_EQ(std::string(file.Get().begin(), file.Get().end()), "bytes");
  std::ofstream(path) << "";
  FileBytes empty;
  EXPECT_TRUE(empty.Load(path) && empty.Get().empty());
  std::filesystem::remove(path);
  EXPECT_FALSE(FileBytes().Load(path));
}

}  // namespace
