// Where answers from any thread wait for the thread that sends them.
#include "Control/ReplyMailbox.h"

#include <sys/eventfd.h>

#include <utility>

namespace Tavi::Recorder {

ReplyMailbox::ReplyMailbox() : m_wake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

void ReplyMailbox::Post(Letter letter) {
  {
    const std::lock_guard lock(m_mutex);
    if (m_closed) return;
    m_letters.push_back(std::move(letter));
  }
  Wake();
}

void ReplyMailbox::Wake() {
  // It fails only when the counter is full, and then it is readable already.
  static_cast<void>(::eventfd_write(m_wake.Get(), 1));
}

std::vector<ReplyMailbox::Letter> ReplyMailbox::Take() {
  eventfd_t ignored = 0;
  static_cast<void>(::eventfd_read(m_wake.Get(), &ignored));
  const std::lock_guard lock(m_mutex);
  return std::exchange(m_letters, {});
}

std::vector<ReplyMailbox::Letter> ReplyMailbox::Close() {
  const std::lock_guard lock(m_mutex);
  m_closed = true;
  return std::exchange(m_letters, {});
}

}  // namespace Tavi::Recorder
