// Lets an exception end one entry of a stream and not the thread that makes it.
#include "Kbase/Util/EntryGuard.h"

#include "Kbase/Klog/Logger.h"
#include "Kbase/Util/Clock.h"

namespace Kbase::Util {
namespace {

constexpr std::int64_t IntervalMs = 10'000;

}  // namespace

void EntryGuard::Note(const char* reason) noexcept {
  const std::uint64_t count = ++m_count;
  try {
    const std::int64_t now = IClock::Steady().Now().count();
    std::int64_t told = m_toldAtMs.load();
    if (told != 0 && now - told < IntervalMs) return;
    if (!m_toldAtMs.compare_exchange_strong(told, now)) return;
    const std::string total = count > 1 ? " (" + std::to_string(count) + " so far)" : std::string();
    Klog::Logger::GetInstance().Error(m_tag, m_what + ": " + reason + total);
  } catch (...) {
    // No memory for the line either: the next entry that is lost tries again.
    m_toldAtMs = 0;
  }
}

}  // namespace Kbase::Util
