// Names: identifiers do not repeat, replacement does not loop, event names keep their time.
#include <gtest/gtest.h>

#include <set>

#include "Kbase/Util/Naming.h"

namespace {

using namespace Kbase::Util;

TEST(Naming, IdentifiersDifferAndFitAFileName) {
  std::set<std::string> seen;
  for (int i = 0; i < 1000; ++i) {
    const std::string uid = NewUid();
    EXPECT_EQ(uid.size(), 36U);
    EXPECT_EQ(uid.find_first_not_of("0123456789abcdef-"), std::string::npos) << uid;
    seen.insert(uid);
  }
  EXPECT_EQ(seen.size(), 1000U);
}

TEST(Naming, ReplacesEveryOccurrenceOnce) {
  EXPECT_EQ(Replace("a.h264", ".h264", ".mp4"), "a.mp4");
  EXPECT_EQ(Replace(".h264/x.h264", ".h264", ".mp4"), ".mp4/x.mp4");
  EXPECT_EQ(Replace("aa", "a", "aa"), "aaaa");
  EXPECT_EQ(Replace("abc", "", "x"), "abc");
  EXPECT_EQ(Replace("abc", "abcd", "x"), "abc");
  EXPECT_EQ(Replace("", "a", "b"), "");
}

TEST(Naming, EventFileNamesAreInUtcWhateverTheZone) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(BuildEventFileName("event", 1795245300), "event_20261121T071500Z");
  unsetenv("TZ");
  tzset();
}

}  // namespace
