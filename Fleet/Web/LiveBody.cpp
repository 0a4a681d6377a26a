// The live messages as the body of an answer.
#include "Fleet/Web/LiveBody.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Tavi::Web {
namespace {

/// Without a byte for so long one is sent all the same: a client that has gone is seen only then.
constexpr std::chrono::seconds LongestSilence{5};

}  // namespace

std::optional<std::size_t> LiveBody::Read(char* buffer, std::size_t size) {
  if (!m_message) {
    m_message = m_viewer->Read(LongestSilence);
    m_sent = 0;
    if (!m_message && m_viewer->HasEnded()) return 0;
    if (!m_message) m_message = MakeJson("{}");
  }
  const std::size_t given = std::min(size, m_message->bytes.size() - m_sent);
  std::memcpy(buffer, m_message->bytes.data() + m_sent, given);
  m_sent += given;
  if (m_sent == m_message->bytes.size()) m_message.reset();
  return given;
}

}  // namespace Tavi::Web
