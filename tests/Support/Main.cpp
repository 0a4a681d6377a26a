// The test programs' main, and what GStreamer and the sanitizers need to be told before it.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

// What libraries without instrumentation do is invisible to ThreadSanitizer, their locks (GLib's are bare futexes)
// included: their memory accesses are left out, ours are not.
constexpr const char* ThreadSanitizerOptions = "ignore_noninstrumented_modules=1:second_deadlock_stack=1";
// Other libraries have no frame pointers: without unwinding by tables their allocations cannot be told from ours.
constexpr const char* AddressSanitizerOptions = "fast_unwind_on_malloc=0";
constexpr const char* LeakSanitizerOptions = "suppressions=" TAVI_LSAN_SUPPRESSIONS;

void Put(const char* path, const std::string& text) {
  if (FILE* file = std::fopen(path, "w")) {
    std::fputs(text.c_str(), file);
    std::fclose(file);
  }
}

/// What a test mounts nobody else sees, and it goes with the test. Whoever is not root may be it there. What the system
/// does not allow makes the tests that mount skip. Before any thread: a process of several cannot change its user
/// namespace.
void BecomeRootOfOwnMounts() {
  if (::geteuid() == 0) {
    if (::unshare(CLONE_NEWNS) == 0) ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
    return;
  }
  const std::string user = std::to_string(::geteuid());
  const std::string group = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return;
  Put("/proc/self/setgroups", "deny");
  Put("/proc/self/uid_map", "0 " + user + " 1");
  Put("/proc/self/gid_map", "0 " + group + " 1");
}

}  // namespace

extern "C" {

const char* __tsan_default_options() {
  return ThreadSanitizerOptions;
}
const char* __asan_default_options() {
  return AddressSanitizerOptions;
}

const char* __lsan_default_options() {
  return LeakSanitizerOptions;
}
}

int main(int argc, char** argv) {
  if (std::getenv("TAVI_TEST_MOUNTS") != nullptr) BecomeRootOfOwnMounts();
  testing::InitGoogleTest(&argc, argv);
  setenv("GST_PLUGIN_PATH", TAVI_PLUGIN_DIR, 1);
  setenv("GST_REGISTRY", TAVI_TEST_REGISTRY, 1);
  // GStreamer's scanner process cannot load a sanitised plug-in.
  setenv("GST_REGISTRY_FORK", "no", 1);
  // For the programs that a test starts.
  setenv("TSAN_OPTIONS", ThreadSanitizerOptions, 0);
  setenv("ASAN_OPTIONS", AddressSanitizerOptions, 0);
  setenv("LSAN_OPTIONS", LeakSanitizerOptions, 0);
  return RUN_ALL_TESTS();
}
