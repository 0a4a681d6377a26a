// Cuts a receiver's byte stream into epochs: the sentences that the receiver sends about one moment.
#include "Kdevice/GpsDevice/EpochSplitter.h"

#include <charconv>
#include <utility>

namespace Kdevice::GpsDevice {
namespace {

using Milliseconds = EpochSplitter::Milliseconds;
using Time = std::optional<Milliseconds>;

enum Kind : unsigned { Other = 0, Rmc = 1, Gga = 2, Gll = 4, Gns = 8, Vtg = 16, Zda = 32 };

/// Kinds that come once an epoch, and the field with the time of the fix (0: it has none).
struct KindRow {
  std::string_view name;
  Kind kind;
  int timeField;
};
constexpr KindRow Kinds[] = {{"RMC", Rmc, 1}, {"GGA", Gga, 1}, {"GLL", Gll, 5},
                             {"GNS", Gns, 1}, {"VTG", Vtg, 0}, {"ZDA", Zda, 0}};

/// Receivers send an epoch in one go; USB adapters hold bytes back for 16 ms.
constexpr Milliseconds ShortPause{100};
/// One and a half epochs of the usual rate: no GGA follows any more.
constexpr Milliseconds LongPause{1500};

bool IsPlain(char c) {
  return c >= 0x20 && c <= 0x7E;
}

/// Of the characters at the front, those that neither end a sentence nor begin another one.
std::size_t CountPlain(std::string_view bytes) {
  std::size_t count = 0;
  while (count < bytes.size() && IsPlain(bytes[count]) && bytes[count] != '$') ++count;
  return count;
}

bool HasRightChecksum(std::string_view line) {
  const std::size_t star = line.find('*');
  if (star == std::string_view::npos || line.size() < star + 3) return false;
  unsigned sum = 0;
  for (const char c : line.substr(1, star - 1)) sum ^= static_cast<unsigned char>(c);
  unsigned sent = 0;
  const char* digits = line.data() + star + 1;
  return std::from_chars(digits, digits + 2, sent, 16).ptr == digits + 2 && sent == sum;
}

std::string_view GetField(std::string_view line, int index) {
  for (; index > 0; --index) {
    const std::size_t comma = line.find(',');
    if (comma == std::string_view::npos) return {};
    line.remove_prefix(comma + 1);
  }
  return line.substr(0, line.find_first_of(",*"));
}

/// hhmmss with any number of decimals, which are cut to milliseconds; empty for anything else.
Time ParseTime(std::string_view text) {
  constexpr std::size_t WholeDigits = 6;
  constexpr std::size_t MilliDigits = 9;
  int digits[MilliDigits] = {};
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (i == WholeDigits && text[i] == '.') continue;
    if (text[i] < '0' || text[i] > '9' || (i == WholeDigits)) return {};
    if (count < MilliDigits) digits[count++] = text[i] - '0';
  }
  if (count < WholeDigits) return {};
  const int hours = digits[0] * 10 + digits[1];
  const int minutes = digits[2] * 10 + digits[3];
  const int seconds = digits[4] * 10 + digits[5];
  // A leap second is 60.
  if (hours > 23 || minutes > 59 || seconds > 60) return {};
  return std::chrono::hours(hours) + std::chrono::minutes(minutes) + std::chrono::seconds(seconds) +
         Milliseconds(digits[6] * 100 + digits[7] * 10 + digits[8]);
}

}  // namespace

struct EpochSplitter::Sentence {
  explicit Sentence(std::string_view line);

  bool intact;
  unsigned kind = Other;
  std::array<char, 2> talker{};
  /// Of the fix; empty in a damaged sentence.
  Time time;
};

EpochSplitter::Sentence::Sentence(std::string_view line) : intact(HasRightChecksum(line)) {
  // "$" talker kind ",". Identifiers that begin with P are makers' own, "PGRMC" among them.
  constexpr std::size_t HeadLength = 7;
  if (line.size() < HeadLength || line[HeadLength - 1] != ',' || line[1] == 'P') return;
  talker = {line[1], line[2]};
  for (const KindRow& row : Kinds) {
    if (line.substr(3, 3) != row.name) continue;
    kind = row.kind;
    if (intact && row.timeField > 0) time = ParseTime(GetField(line, row.timeField));
  }
}

EpochSplitter::EpochSplitter(Sink sink) : m_sink(std::move(sink)) {
  m_line.reserve(MaxLineBytes);
  m_text.reserve(MaxEpochBytes);
}

void EpochSplitter::Feed(std::string_view bytes, Milliseconds at) {
  while (!bytes.empty()) {
    // Most are of a sentence that has begun, and are taken as they come.
    const std::size_t room = m_state == State::Sentence ? MaxLineBytes - m_line.size() : 0;
    const std::size_t count = CountPlain(bytes.substr(0, room));
    m_line.append(bytes.substr(0, count));
    bytes.remove_prefix(count);
    if (bytes.empty()) return;
    Take(bytes.front(), at);
    bytes.remove_prefix(1);
  }
}

void EpochSplitter::Take(char c, Milliseconds at) {
  if (c == '\r' || c == '\n') {
    EndSentence();
    m_state = State::LineStart;
    return;
  }
  if (!IsPlain(c) || m_state == State::Comment) return;
  if (c == '$') {
    EndSentence();
    m_state = State::Sentence;
    m_lineBegunAt = at;
  } else if (m_state == State::LineStart) {
    m_state = c == '#' ? State::Comment : State::Noise;
  }
  if (m_state != State::Sentence) return;
  if (m_line.size() < MaxLineBytes) {
    m_line.push_back(c);
  } else {
    ++m_losses.cutLines;
    EndSentence();
    m_state = State::Noise;
  }
}

void EpochSplitter::EndSentence() {
  if (m_state != State::Sentence) return;
  Add(Sentence(m_line));
  m_line.clear();
}

void EpochSplitter::Add(const Sentence& sentence) {
  if (!sentence.intact) ++m_losses.damaged;
  if (BeginsEpoch(sentence)) EndEpoch();
  const bool hadRmc = Holds(Rmc);
  // What has no time may be the rest of the epoch before, which a pause has given away or noise has hidden.
  if (!m_time) m_begunAt = m_lineBegunAt;
  m_kinds |= sentence.kind;
  if (!m_time) m_time = sentence.time;
  if (sentence.kind == Rmc && !hadRmc) {
    m_rmcTime = sentence.time;
    m_rmcTalker = sentence.talker;
  }
  Append(hadRmc);
}

bool EpochSplitter::BeginsEpoch(const Sentence& sentence) const {
  const bool timed = sentence.time && m_time;
  if (timed && *sentence.time != *m_time) return true;
  if (!Holds(Rmc) || !Holds(sentence.kind)) return false;
  if (!timed) return true;
  // Of this epoch's time. A receiver whose clock stands still repeats it with the same talker.
  return sentence.kind == Rmc && sentence.talker == m_rmcTalker;
}

void EpochSplitter::Append(bool hadRmc) {
  constexpr std::string_view LineEnd = "\r\n";
  if (m_delivered) {
    ++m_losses.late;
    return;
  }
  if (m_text.size() + m_line.size() + LineEnd.size() > MaxEpochBytes) {
    m_losses.overflow += hadRmc ? 1 : std::exchange(m_count, 0);
    if (hadRmc) return;
    // An RMC that is still to come must find room.
    m_text.clear();
  }
  m_text.append(m_line).append(LineEnd);
  ++m_count;
}

void EpochSplitter::EndEpoch() {
  if (Holds(Rmc)) {
    Deliver();
  } else {
    m_losses.withoutRmc += m_count;
  }
  m_text.clear();
  m_count = 0;
  m_kinds = 0;
  m_time.reset();
  m_rmcTime.reset();
  m_delivered = false;
}

void EpochSplitter::Deliver() {
  if (std::exchange(m_delivered, true)) return;
  m_sink({m_text.data(), m_text.size(), m_rmcTime, m_begunAt});
}

void EpochSplitter::Pause(Milliseconds elapsed) {
  const auto needed = GetNeededPause();
  if (needed && elapsed >= *needed) Deliver();
}

std::optional<Milliseconds> EpochSplitter::GetNeededPause() const {
  if (m_delivered || !Holds(Rmc)) return {};
  return Holds(Gga) ? ShortPause : LongPause;
}

void EpochSplitter::Flush() {
  if (m_state == State::Sentence && HasRightChecksum(m_line)) EndSentence();
  m_line.clear();
  m_state = State::LineStart;
  EndEpoch();
}

}  // namespace Kdevice::GpsDevice
