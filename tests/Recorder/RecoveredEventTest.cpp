// An interrupted event finds the request that it was made for, and no other.
#include "Recorder/Service/RecoveredEvent.h"

#include <gtest/gtest.h>

#include <fstream>

#include "EventStore/EventName.h"

namespace Tavi::Recorder {
namespace {

using EventStore::RequestNote;
using RecoveryCollect::RecoveredEvent;

constexpr std::int64_t Noon = 1'795'262'400;

/// Asked for so many seconds after noon.
RequestNote MakeNote(const std::string& id, double seconds, int before) {
  RequestNote note;
  note.request.id = id;
  note.request.timeMs = Noon * 1000 + static_cast<std::int64_t>(seconds * 1000.0);
  note.request.startSeconds = -before;
  return note;
}

/// Saved so many seconds after noon with that much recorded.
RecoveredEvent MakeRecovered(const std::string& name, int savedAt, unsigned int recorded) {
  RecoveredEvent recovered;
  recovered.name = name;
  recovered.output.eventTime = Noon + savedAt;
  recovered.seconds = recorded;
  return recovered;
}

// An event that gets the label of another that was asked for at the same time, or that is another one at each start.
TEST(RecoveredEventTest, TheRequestIsFoundByItsId) {
  const struct {
    const char* name;
    const char* id;
  } cases[] = {{"0000000b_20261121T120018Z_23", "0000000b"},
               {"crash-0000000c_20261121T120000Z_0", "0000000c"},
               {"0000000f_20261121T120018Z_23", ""},
               {"event_20261121T120018Z_23", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<RequestNote> notes{MakeNote("0000000a", 10.4, 15), MakeNote("0000000b", 11.2, 6),
                                   MakeNote("0000000c", 500.0, 15)};
    const auto recovered = MakeRecovered(c.name, 18, 23);
    const auto note = TakeNote(recovered, notes);
    EXPECT_EQ(note ? note->request.id : "", c.id);
    EXPECT_EQ(notes.size(), note ? 2U : 3U);
    const auto id = DescribeRecovered(recovered, note, {}).id;
    EXPECT_TRUE(EventStore::IsEventId(id));
    EXPECT_EQ(id, DescribeRecovered(recovered, note, {}).id);
  }
}

// Streams that begin where the rings had nothing yet; a request's words that are lost.
TEST(RecoveredEventTest, StreamsBeginWhereTheRecordDoes) {
  const struct {
    unsigned int recorded;
    double from;
  } cases[] = {{23, -15.0}, {24, -15.0}, {18, -10.4}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.recorded);
    std::vector<RequestNote> notes{MakeNote("0000000a", 10.4, 15)};
    notes[0].request.label = "here";
    // The receiver knew better than the clock that the files are named by.
    notes[0].request.timeSource = EventStore::ReceiverSource;
    notes[0].request.systemAheadSeconds = -1e9;
    notes[0].request.timeMs += 1'000'000'000'000;
    notes[0].request.durationSeconds = 30;
    const std::string path = testing::TempDir() + "tavi_other.dat";
    std::ofstream(path) << R"([{"cpu_usage":1},{"cpu_usage":2},{"cpu_usage":3}])";
    auto recovered = MakeRecovered("0000000a_x", 18, c.recorded);
    recovered.output.outputs[PipelineCollect::PipelineCollectType::Other] = path;
    const auto event = DescribeRecovered(recovered, TakeNote(recovered, notes), {});
    EXPECT_EQ(event.id + event.label, "0000000ahere");
    ASSERT_EQ(event.streams.size(), 1U);
    EXPECT_EQ(event.streams[0].entries, 3U);
    EXPECT_NEAR(event.streams[0].fromSeconds, c.from, 1e-9);
    EXPECT_NEAR(event.streams[0].toSeconds, c.from + 2.0, 1e-9);
    ASSERT_FALSE(event.missing.empty());
    EXPECT_NEAR(event.missing.back().seconds, 13.0 - c.from, 1e-9) << "what was cut off";
  }
}

// A place that is guessed although a companion tells it, and a moment that is the end of what was recorded.
TEST(RecoveredEventTest, WhereACompanionTellsNothingIsGuessed) {
  const std::string path = testing::TempDir() + "tavi_told.dat";
  std::ofstream(path) << R"([{"cpu_usage":1},{"cpu_usage":2},{"cpu_usage":3}])";
  std::ofstream(path + ".times") << "times 1 1 counted\n-4250000000 11\n-2750000000 12\n3250000000 13\n";
  auto recovered = MakeRecovered("0000000a_x_8", 18, 8);
  recovered.output.outputs[PipelineCollect::PipelineCollectType::Other] = path;
  std::vector<RequestNote> notes{MakeNote("0000000a", 10.4, 15)};
  for (const auto& note : {TakeNote(recovered, notes), std::optional<RequestNote>()}) {
    const auto event = DescribeRecovered(recovered, note, {});
    ASSERT_EQ(event.streams.size(), 1U);
    EXPECT_NEAR(event.streams[0].fromSeconds, -4.25, 1e-9);
    EXPECT_NEAR(event.streams[0].toSeconds, 3.25, 1e-9);
    EXPECT_EQ(event.streams[0].firstTimestampNs, 11);
    EXPECT_EQ(event.timeMs, note ? Noon * 1000 + 10'400 : (Noon + 18) * 1000 - 3250);
    EXPECT_EQ(event.startSeconds, note ? -15 : -5);
  }
}

}  // namespace
}  // namespace Tavi::Recorder
