// An interrupted event finds the request that it was made for, and no other.
#include "Recorder/Service/RecoveredEvent.h"

#include <gtest/gtest.h>

#include <fstream>

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

// Two requests at once that get each other's label; one that is matched with an event of another day, or that came
// after.
TEST(RecoveredEventTest, TheRequestIsFoundByItsIdOrByWhereTheRecordBegins) {
  const struct {
    const char* what;
    RecoveredEvent recovered;
    const char* id;
  } cases[] = {
      {"first of two at once", MakeRecovered("event_x_23", 18, 23), "0000000a"},
      {"second of two at once", MakeRecovered("event_x_13", 18, 13), "0000000b"},
      {"the rings were not full", MakeRecovered("event_x_9", 18, 9), "0000000b"},
      {"a crash tells the id", MakeRecovered("crash-0000000c_20261121T120000Z_0", 18, 0), "0000000c"},
      {"a crash of something else", MakeRecovered("crash-0000000f_20261121T120000Z_0", 18, 0), ""},
      {"another day", MakeRecovered("event_x_23", 86'418, 23), ""},
      {"before all requests", MakeRecovered("event_x_23", 7, 23), ""},
      {"its length is unknown", MakeRecovered("event_x", 18, 0), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    // 10.4 s and 11.2 s after noon, and one that waits for power to come back.
    std::vector<RequestNote> notes{MakeNote("0000000a", 10.4, 15), MakeNote("0000000b", 11.2, 6),
                                   MakeNote("0000000c", 500.0, 15)};
    const auto note = TakeNote(c.recovered, notes);
    EXPECT_EQ(note ? note->request.id : "", c.id);
    EXPECT_EQ(notes.size(), note ? 2U : 3U);
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
    const std::string path = testing::TempDir() + "tavi_other.dat";
    std::ofstream(path) << R"([{"cpu_usage":1},{"cpu_usage":2},{"cpu_usage":3}])";
    auto recovered = MakeRecovered("event_x", 18, c.recorded);
    recovered.output.outputs[PipelineCollect::PipelineCollectType::Other] = path;
    const auto event = DescribeRecovered(recovered, TakeNote(recovered, notes), {});
    EXPECT_EQ(event.id + event.label, "0000000ahere");
    ASSERT_EQ(event.streams.size(), 1U);
    EXPECT_EQ(event.streams[0].entries, 3U);
    EXPECT_NEAR(event.streams[0].fromSeconds, c.from, 1e-9);
    EXPECT_NEAR(event.streams[0].toSeconds, c.from + 2.0, 1e-9);
  }
}

}  // namespace
}  // namespace Tavi::Recorder
