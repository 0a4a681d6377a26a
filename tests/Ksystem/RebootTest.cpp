// Restarting: a handler takes its place, and without one a desktop's process ends with a status of its own.
#include <gtest/gtest.h>

#include "Ksystem/System/Reboot.h"

namespace {

TEST(RebootDeathTest, CallsTheHandlerOrEndsTheProcess) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  int calls = 0;
  Ksystem::System::SetRebootHandler([&] { ++calls; });
  Ksystem::System::Reboot();
  EXPECT_EQ(calls, 1);
  Ksystem::System::SetRebootHandler({});
  EXPECT_EXIT(Ksystem::System::Reboot(), testing::ExitedWithCode(Ksystem::System::RebootExitStatus),
              "ending the process instead of restarting");
}

}  // namespace
