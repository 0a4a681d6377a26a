// Names: identifiers do not repeat, replacement does not loop, event names keep their time.
#include <gtest/gtest.h>

#include "Kbase/Util/Naming.h"

namespace {

using namespace Kbase::Util;

TEST(Naming, ReplacesEveryOccurrenceOnce) {
  EXPECT_EQ(Replace("a.h264", ".h264", ".mp4"), "a.mp4");
  EXPECT_EQ(Replace(".h264/x.h264", ".h264", ".mp4"), ".mp4/x.mp4");
  EXPECT_EQ(Replace("aa", "a", "aa"), "aaaa");
}

TEST(Naming, EventFileNamesAreInUtcWhateverTheZone) {
  setenv("TZ", "America/New_York", 1);
  tzset();
  EXPECT_EQ(BuildEventFileName("event", 1795245300), "event_20261121T071500Z");
  unsetenv("TZ");
  tzset();
}

}  // namespace
