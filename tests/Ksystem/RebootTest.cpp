// Restarting: a handler takes its place, and without one a desktop's process ends with a status of its own.
#include <gtest/gtest.h>

#include "Ksystem/System/Reboot.h"

namespace {

using namespace Ksystem::System;

TEST(Reboot, AHandlerTakesItsPlace) {
  int calls = 0;
  SetRebootHandler([&] { ++calls; });
  Reboot();
  SetRebootHandler({});
  EXPECT_EQ(calls, 1);
}

TEST(RebootDeathTest, EndsTheProcessWhereItIsNotTheUnit) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(Reboot(), testing::ExitedWithCode(RebootExitStatus), "ending the process instead of restarting");
}

}  // namespace
