// The recorder as a service, watched live: who watches costs the recording nothing.
#include <gmock/gmock.h>

#include <atomic>
#include <csignal>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "Control/LiveClient.h"
#include "EventStore/LaterLabel.h"
#include "Recorder/ServiceFixture.h"

namespace {

using namespace Tavi::Testing;
using namespace std::chrono_literals;
using Tavi::Recorder::LiveClient;
using Tavi::Recorder::LiveRecord;
using testing::HasSubstr;

/// The line of docs/platform.md, without a screen: ends after so many decoded frames.
pid_t View(int port, int frames, const char* pace = "") {
  std::string line =
      "exec gst-launch-1.0 -q tcpclientsrc host=127.0.0.1 port=" + std::to_string(port) + " ! " + pace +
      "gdpdepay ! h264parse ! openh264dec ! videoconvert ! fakesink num-buffers=" + std::to_string(frames) +
      " >/dev/null";
  std::string shell = "sh";
  std::string option = "-c";
  char* arguments[] = {shell.data(), option.data(), line.data(), nullptr};
  pid_t viewer = 0;
  EXPECT_EQ(posix_spawnp(&viewer, "sh", nullptr, nullptr, arguments, environ), 0);
  return viewer;
}

// Catches viewers that are not served, and frames that are lost because one of them is slow, leaves or dies.
TEST_F(ServiceTest, LiveViewersComeAndGoAndTheRecordingLosesNothing) {
  const int port = 19000 + getpid() % 10000;
  WriteSettings({{"withPreview", false}}, {{"camera1", {{"streamEnabled", true}, {"streamPort", port}}}});
  StartService();
  EXPECT_EQ(Ctl("event --before 0 --duration 9")["ok"], true);
  const pid_t slow = View(port, 10000, "identity sleep-time=3000000 ! ");
  EXPECT_EQ(Wait(View(port, 100)), 0) << "beside one that hardly reads";
  const pid_t killed = View(port, 10000);
  const pid_t others[] = {View(port, 60), View(port, 60)};
  std::this_thread::sleep_for(std::chrono::seconds(1));
  kill(killed, SIGKILL);
  EXPECT_EQ(Wait(killed), -1);
  for (const pid_t viewer : others) EXPECT_EQ(Wait(viewer), 0);
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["storage"]["saved"] == 1; }));
  kill(slow, SIGKILL), Wait(slow);
  EXPECT_EQ(EndService(SIGTERM), 0);
  const auto events = ReadEvents();
  ASSERT_EQ(events.size(), 1U);
  std::map<std::string, double> lost;
  for (const auto& stream : events[0].streams) {
    if (!stream.type.starts_with("Video")) continue;
    const double seconds = static_cast<double>(*stream.lastTimestampNs - *stream.firstTimestampNs) / 1e9;
    lost[stream.type] = 1.0 - static_cast<double>(stream.entries - 1) / stream.rate / seconds;
  }
  // A machine on which the camera without viewers loses frames, too, is too loaded to tell more.
  EXPECT_LT(lost.at("VideoCamera0"), lost.at("VideoCamera1") < 0.002 ? 0.02 : 0.7);
}

/// Takes what comes on a thread of its own; of payloads only each stream's first.
class LiveReader {
 public:
  LiveReader(const std::string& path, const std::vector<std::string>& streams) {
    std::string problem;
    m_client = LiveClient::Open(path, streams, problem);
    EXPECT_TRUE(m_client) << problem;
    m_thread = std::thread([this] {
      std::string end;
      for (LiveRecord record; m_client && m_client->Next(record, 50ms, end) != LiveClient::Got::End && !m_isDone;) {
        if (!record.payload.empty()) Take(record);
        record.payload.clear();
      }
    });
  }
  ~LiveReader() {
    m_isDone = true;
    m_thread.join();
  }
  std::vector<LiveRecord> GetRecords() {
    const std::lock_guard lock(m_mutex);
    return m_records;
  }

 private:
  void Take(const LiveRecord& record) {
    const std::lock_guard lock(m_mutex);
    const bool isFirst = std::ranges::find(m_records, record.stream, &LiveRecord::stream) == m_records.end();
    m_records.push_back(record);
    if (!isFirst) m_records.back().payload.clear();
  }

  std::unique_ptr<LiveClient> m_client;
  std::atomic<bool> m_isDone{false};
  std::mutex m_mutex;
  std::vector<LiveRecord> m_records;
  std::thread m_thread;
};

std::int64_t CountOfStream(const std::vector<LiveRecord>& records, int stream) {
  return std::ranges::count_if(records, [stream](const auto& record) { return record.stream == stream; });
}

// Catches a live stream that lacks frames which the recording has, that cannot be decoded from its first picture on,
// that ends with the ignition, or that keeps words written later from an event.
TEST_F(ServiceTest, TheLiveStreamHasEveryFrameOfTheRecordingAndLaterWordsGoBesideIt) {
  WriteSettings({{"withPreview", false}}, {{"camera1", {{"name", "back"}}}});
  StartService();
  const std::string socket = m_dir + "ctl/socket";
  ASSERT_TRUE(WaitUntil([&] { return Ctl("status")["sources"]["camera1"]["entries"] > 30; }));
  EXPECT_THAT(Ask(R"({"command":"live","streams":["camera2"]})"), HasSubstr(R"("camera2\" is no stream; there are )"));
  RawClient stalled(socket);
  EXPECT_THAT(stalled.Ask("{\"command\":\"live\"}\n"), HasSubstr(R"("name":"back","type":"VideoCamera0")"));
  LiveReader reader(socket, {"camera1", "audio", "acc"});
  // The event's window begins at a key frame, a second before the request at most.
  ASSERT_TRUE(WaitUntil([&] { return CountOfStream(reader.GetRecords(), 0) > 60; }));
  const auto reply = Ctl("event --before 0 --duration 3 --wait");
  EXPECT_EQ(reply["saved"], true) << reply;
  const auto records = reader.GetRecords();
  for (const int stream : {1, 2}) EXPECT_GT(CountOfStream(records, stream), 20);
  const auto began = *std::ranges::find(records, 0, &LiveRecord::stream);
  EXPECT_TRUE(began.isKeyFrame);
  const std::string picture(began.payload.begin(), began.payload.end());
  for (const char type : {'\x67', '\x68', '\x65'}) EXPECT_THAT(picture, HasSubstr(std::string{0, 0, 1, type}));
  const auto video = ReadEvents().at(0).streams.at(1);
  ASSERT_EQ(video.type, "VideoCamera0");
  EXPECT_LE(*began.timestampNs, *video.firstTimestampNs);
  std::set<std::int64_t> inWindow;
  for (const auto& record : records) {
    EXPECT_FALSE(record.isAfterGap) << int{record.stream};
    if (record.stream == 0) inWindow.insert(record.timestampNs.value());
  }
  inWindow.erase(inWindow.begin(), inWindow.lower_bound(*video.firstTimestampNs));
  inWindow.erase(inWindow.upper_bound(*video.lastTimestampNs), inWindow.end());
  EXPECT_EQ(inWindow.size(), video.entries) << "the same frames, while another client takes none";
  EXPECT_GE(Ctl("status")["live"]["clients"], 1);

  EXPECT_EQ(Ctl("label last 'dented <door>'")["label"], "dented <door>");
  EXPECT_EQ(ReadLaterLabel(reply["directory"]), "dented <door>");
  EXPECT_THAT(Ctl("label 00000000 x")["error"], HasSubstr("there is no event 00000000"));
  const std::string page = std::string(reply["directory"]) + "/index.html";
  EXPECT_TRUE(
      WaitUntil([&] { return ReadFile(page).find(R"("laterLabel":"dented \u003cdoor>")") != std::string::npos; }));
  EXPECT_TRUE(WaitUntil([&] {
    return ReadFile(m_dir + "tavi/events/index.html").find("(written later: dented &lt;door&gt;)") != std::string::npos;
  }));

  for (const char* state : {"off", "on"}) EXPECT_EQ(Ctl(std::string("ignition ") + state)["ignition"], state);
  const std::size_t taken = reader.GetRecords().size();
  EXPECT_TRUE(WaitUntil([&] { return reader.GetRecords().size() > taken + 100; }));
  EXPECT_EQ(EndService(SIGTERM), 0);
}

}  // namespace
