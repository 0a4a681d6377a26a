// Cuts a receiver's byte stream into epochs: the sentences that the receiver sends about one moment.
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace Kdevice::GpsDevice {

/// Pure: no clock, no I/O. Whatever way the bytes are chunked, the epochs are the same. Thread-bound.
///
/// Sentences (NMEA 0183: '$' to the line end) are kept; everything else is noise: control characters, bytes above 0x7E,
/// text outside a sentence, lines that begin with '#'. A '$' inside a sentence begins another one, because a line end
/// was lost. Each epoch handed out holds at least one RMC sentence; sentences without one are dropped.
///
/// An epoch ends where
/// - a fix sentence (RMC, GGA, GLL, GNS) with a right checksum has another time than the epoch. ZDA does not count: its
///   time is that of the clock, not of the fix. Times are compared as numbers: "101500.00" is "101500.000";
/// - a second RMC arrives, right checksum or not, so that a damaged RMC costs its fix and not a step of the time line.
///   Exception: another talker's RMC of the same time (GPRMC beside GNRMC);
/// - the epoch holds an RMC and another kind that comes once an epoch is repeated, other than with the epoch's time.
class EpochSplitter {
 public:
  using Milliseconds = std::chrono::milliseconds;
  /// Longer lines lose their rest. NMEA 0183 allows 82 characters; receivers' own sentences are longer.
  static constexpr std::size_t MaxLineBytes = 1024;
  /// Sentences beyond that are dropped. A receiver with 40 satellites in view sends about 2 kB an epoch.
  static constexpr std::size_t MaxEpochBytes = 16384;

  struct Epoch {
    /// The sentences, each ended by CR LF, and a NUL behind the last. Borrowed for the call.
    char* text;
    /// Without the NUL.
    std::size_t sizeBytes;
    /// Time of day in the RMC sentence, empty when it has none or is damaged.
    std::optional<Milliseconds> rmcTime;
    /// When the first sentence that is known to be the epoch's began to come, as Feed was told.
    Milliseconds begunAt;
  };
  using Sink = std::function<void(const Epoch&)>;

  /// What did not reach an epoch, or reached one damaged, since the construction.
  struct Losses {
    /// Sentences with a wrong or missing checksum. Their epoch has them.
    std::uint64_t damaged = 0;
    /// Sentences cut at MaxLineBytes.
    std::uint64_t cutLines = 0;
    /// Sentences beyond MaxEpochBytes.
    std::uint64_t overflow = 0;
    /// Sentences of epochs without an RMC.
    std::uint64_t withoutRmc = 0;
    /// Sentences that came after Pause had given their epoch away.
    std::uint64_t late = 0;
  };

  /// `sink` is called within Feed, Pause and Flush.
  explicit EpochSplitter(Sink sink);

  /// `at`: when the bytes came, by the caller's clock.
  void Feed(std::string_view bytes, Milliseconds at = Milliseconds(0));
  /// Tells that nothing has come for `elapsed`: gives the present epoch away once GetNeededPause() is reached. What
  /// still comes of that epoch is dropped.
  void Pause(Milliseconds elapsed);
  /// How long a pause must be to end the present epoch: short once RMC and GGA are there, longer for an RMC alone.
  /// Empty when there is nothing to give away.
  [[nodiscard]] std::optional<Milliseconds> GetNeededPause() const;
  /// The stream has ended: gives the present epoch away and starts afresh. A sentence without its line end counts when
  /// its checksum is right.
  void Flush();

  [[nodiscard]] const Losses& GetLosses() const { return m_losses; }

 private:
  struct Sentence;
  enum class State { LineStart, Sentence, Comment, Noise };

  void Take(char c, Milliseconds at);
  void EndSentence();
  void Add(const Sentence& sentence);
  [[nodiscard]] bool BeginsEpoch(const Sentence& sentence) const;
  void Append(bool hadRmc);
  void EndEpoch();
  void Deliver();
  [[nodiscard]] bool Holds(unsigned kind) const { return (m_kinds & kind) != 0; }

  const Sink m_sink;
  Losses m_losses;
  State m_state = State::LineStart;
  std::string m_line;
  Milliseconds m_lineBegunAt{0};
  /// The present epoch.
  std::string m_text;
  std::uint64_t m_count = 0;
  /// Kinds that it holds, one bit each.
  unsigned m_kinds = 0;
  std::optional<Milliseconds> m_time;
  std::optional<Milliseconds> m_rmcTime;
  std::array<char, 2> m_rmcTalker{};
  Milliseconds m_begunAt{0};
  bool m_delivered = false;
};

}  // namespace Kdevice::GpsDevice
