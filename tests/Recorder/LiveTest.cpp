// The live stream from rings to another process's client: who reads gets every entry, who does not costs nobody any.
#include <gmock/gmock.h>

#include <deque>
#include <limits>
#include <map>
#include <mutex>
#include <thread>

#include "Control/LiveClient.h"
#include "Control/Served.h"
#include "Recorder/Live/LiveServer.h"
#include "Recorder/Live/SensorText.h"
#include "Support/Media.h"
#include "Tavi/Video/VideoPipelineCbElement.h"

namespace {

using namespace Tavi::Recorder;
using namespace Tavi::Testing;
using std::chrono::milliseconds;
using Tavi::Pipeline::PipelineType;
using Tavi::Video::StreamSetup;
using testing::HasSubstr;

constexpr std::uint64_t FramesOfSecond = 10;
/// Two of them fill a socket.
constexpr std::size_t LargeFrame = 150'000;

/// Hands over what asks for "live", holds what asks for "hold", and answers everything else.
class LiveHandler final : public ControlHandler {
 public:
  explicit LiveHandler(Live::LiveServer& live) : m_live(live) {}
  void Handle(const nlohmann::ordered_json& request, Reply reply) override {
    if (request["command"] == "hold") return m_held.push_back(reply);
    if (request["command"] != "live") return reply({});
    const auto place = m_live.TakePlace();
    if (!place) return reply.Refuse("no place");
    reply.HandOver({{"streams", request["streams"]}}, [this, place](Ksystem::FileUtils::UniqueFd socket) {
      m_live.Add(std::move(socket), {PipelineType::Camera0, PipelineType::Other}, place);
    });
  }

 private:
  Live::LiveServer& m_live;
  std::vector<Reply> m_held;
};

class LiveTest : public MediaTest {
 protected:
  void Open(const Live::LiveLimits& limits = {}) {
    m_live = std::make_unique<Live::LiveServer>(
        [this](PipelineType type) {
          const std::lock_guard lock(m_mutex);
          return m_rings[type];
        },
        limits);
    m_live->Start();
    m_handler = std::make_unique<LiveHandler>(*m_live);
    m_server = std::make_unique<ControlServer>(*m_handler);
    std::string problem;
    ASSERT_TRUE(m_server->Open(m_path = m_dir + "socket", problem)) << problem;
    Begin();
  }
  void TearDown() override {
    m_server.reset();
    m_live.reset();
    MediaTest::TearDown();
  }
  /// A camera as it is after a start of the acquisition; key frames are ten apart.
  void Begin() {
    const std::lock_guard lock(m_mutex);
    m_rings[PipelineType::Camera0] = std::make_shared<TestRing>(64, 30.0F);
  }
  void Deliver(const std::string& text, std::shared_ptr<const StreamSetup> setup = nullptr) {
    auto& ring = *m_rings[PipelineType::Camera0];
    const std::uint64_t id = ring.GetCurrentFrameId() + 1;
    GstBuffer* buffer = MakeBuffer(text, 1000 + id, id % FramesOfSecond == 0);
    ring.AddNext(std::make_shared<Tavi::Video::VideoPipelineCbElement>(id, buffer, "camera1", std::move(setup)));
  }
  /// One whose number is its time stamp.
  void DeliverLarge() { Deliver(std::string(LargeFrame, 'f')); }
  std::unique_ptr<LiveClient> Connect() {
    std::string problem;
    auto client = LiveClient::Open(m_path, {"camera0", "other"}, problem, milliseconds(20'000));
    EXPECT_TRUE(client) << problem;
    return client;
  }
  static LiveRecord Get(LiveClient& client) {
    LiveRecord record;
    std::string problem;
    EXPECT_EQ(client.Next(record, milliseconds(20'000), problem), LiveClient::Got::Record) << problem;
    return record;
  }
  static std::string GetText(LiveClient& client) {
    const LiveRecord record = Get(client);
    return {record.payload.begin(), record.payload.end()};
  }

  std::mutex m_mutex;
  std::map<PipelineType, std::shared_ptr<TestRing>> m_rings;
  std::unique_ptr<Live::LiveServer> m_live;
  std::unique_ptr<LiveHandler> m_handler;
  std::unique_ptr<ControlServer> m_server;
  std::string m_path;
};

// Catches a slow client that costs another one entries, that gets what no decoder can go on with, or that is not told;
// and a stream that ends with the acquisition.
TEST_F(LiveTest, WhoReadsGetsEveryEntryAndWhoStallsGoesOnAtAKeyFrame) {
  Live::LiveLimits limits;
  limits.lag = milliseconds(200);
  Open(limits);
  for (int i = 0; i < 15; ++i) DeliverLarge();
  const auto reader = Connect();
  const auto stalled = Connect();
  constexpr std::uint64_t First = 10;
  constexpr std::uint64_t Last = 60;
  for (std::uint64_t id = First; id <= Last; ++id) {
    const LiveRecord record = Get(*reader);
    ASSERT_EQ(record.timestampNs, 1000 + id) << "begins with the newest key frame, and misses none from then on";
    EXPECT_EQ(record.isKeyFrame, id % FramesOfSecond == 0);
    EXPECT_FALSE(record.isAfterGap);
    EXPECT_EQ(record.payload.size(), LargeFrame);
    if (id >= 14 && id < Last) DeliverLarge();
    std::this_thread::sleep_for(milliseconds(10));
  }
  std::int64_t expected = 1000 + First;
  int gaps = 0;
  for (std::int64_t timestamp = 0; timestamp < static_cast<std::int64_t>(1000 + Last); ++expected) {
    const LiveRecord record = Get(*stalled);
    timestamp = record.timestampNs.value();
    EXPECT_EQ(record.isAfterGap, timestamp != expected) << timestamp;
    EXPECT_TRUE(record.isKeyFrame || !record.isAfterGap) << timestamp;
    gaps += record.isAfterGap ? 1 : 0;
    expected = timestamp;
  }
  EXPECT_GE(gaps, 1);
  EXPECT_TRUE(WaitUntil([&] { return m_live->Read().dropped > 9; })) << "counted when all of a round are served";
  Begin();
  DeliverLarge();
  for (auto* client : {reader.get(), stalled.get()}) {
    const LiveRecord record = Get(*client);
    EXPECT_EQ(record.timestampNs, 1000);
    EXPECT_TRUE(record.isAfterGap && record.isKeyFrame);
  }
}

// Catches pictures that a decoder cannot take as they are framed, parameter sets that are missing or there twice, and
// an entry without use that ends the stream.
TEST_F(LiveTest, EveryPictureIsAByteStreamAndKeyFramesBringTheirParameterSets) {
  using namespace std::string_literals;
  Open();
  const std::string code = "\0\0\0\1"s;
  const std::string sets = code + "\x67S" + code + "\x68P";
  const std::vector<std::uint8_t> bytes(sets.begin(), sets.end());
  const auto plain = std::make_shared<const StreamSetup>(StreamSetup{bytes, 0});
  const auto framed = std::make_shared<const StreamSetup>(StreamSetup{bytes, 4});
  const std::string picture = "\0\0\0\3\x65ii\0\0\0\2\x06x"s;
  const auto client = Connect();
  Deliver(picture, framed);
  EXPECT_EQ(GetText(*client), sets + code + "\x65ii" + code + "\x06x");
  Deliver("\0\0\0\2\x41p"s, framed);
  EXPECT_EQ(GetText(*client), code + "\x41p") << "no key frame";
  Deliver("\0\0\1\0\x41p"s, framed), Deliver("\0\0\0\2\x41q"s, framed);
  const LiveRecord after = Get(*client);
  EXPECT_EQ(after.timestampNs, 1003) << "lengths that do not fit";
  EXPECT_TRUE(after.isAfterGap);
  EXPECT_TRUE(WaitUntil([&] { return m_live->Read().dropped == 1; }));
  for (int i = 4; i < 10; ++i) Deliver("p", plain), GetText(*client);
  Deliver(code + "\x65i", plain);
  EXPECT_EQ(GetText(*client), sets + code + "\x65i");
  for (int i = 1; i < 10; ++i) Deliver("p", plain), GetText(*client);
  Deliver(sets + code + "\x65i", plain);
  EXPECT_EQ(GetText(*client), sets + code + "\x65i") << "not twice";
}

// Catches a place that is lost with its client, a client that stays for ever, and one that is taken for a client while
// it waits for other answers.
TEST_F(LiveTest, PlacesAreFewAndComeBack) {
  Live::LiveLimits limits;
  limits.stall = milliseconds(300);
  Open(limits);
  std::deque<std::unique_ptr<LiveClient>> clients;
  while (clients.size() < MaxLiveClients) clients.push_back(Connect());
  std::string problem;
  EXPECT_FALSE(LiveClient::Open(m_path, {}, problem));
  EXPECT_EQ(problem, "the recorder at " + m_path + " gives no live stream: no place");
  clients.pop_front();
  const std::string request = R"({"command":"live","id":3,"streams":[]})";
  ASSERT_TRUE(WaitUntil([&] { return m_live->Read().clients == 3; }));
  for (const char* other : {R"({"command":"hold"})", R"({"command":"hold","id":1})"}) {
    RawClient mixed(m_path);
    EXPECT_THAT(mixed.Ask(std::string(other) + "\n" + request + "\n"), HasSubstr("a connection of its own"));
    EXPECT_THAT(mixed.Ask("{\"command\":\"status\"}\n"), HasSubstr(R"("ok":true)")) << "it stays";
  }
  RawClient ahead(m_path);
  EXPECT_THAT(ahead.Ask(request + "\nmore"), HasSubstr(R"("id":3,"ok":false,"error":"this wants a connection of)"));
  RawClient talker(m_path);
  EXPECT_THAT(talker.Ask(request + "\n"), HasSubstr(R"("ok":true)"));
  talker.Send("more");
  EXPECT_TRUE(talker.IsCutOff());
  RawClient ended(m_path);
  ended.Send(request + "\n");
  ended.EndSending();
  EXPECT_THAT(ended.ReadLine(), HasSubstr(R"("ok":true)"));
  Deliver("still there\n");
  EXPECT_THAT(ended.ReadLine(), HasSubstr("TVL1")) << "who sends nothing more may read on";
  for (int i = 0; i < 5; ++i) DeliverLarge();
  EXPECT_TRUE(WaitUntil([&] { return m_live->Read().clients == 0; })) << "nobody reads";
}

/// A recorder that sends what it is told, and closes.
class LiveClientTest : public TempDirTest {
 protected:
  using Fd = Ksystem::FileUtils::UniqueFd;
  /// How the stream ends, behind so many records.
  std::string Read(const std::string& reply, const std::string& stream, std::size_t chunk, int& records) {
    const std::string path = m_dir + "socket";
    std::filesystem::remove(path);
    const Fd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(OnSocket(::bind, listener.Get(), path), 0);
    EXPECT_EQ(::listen(listener.Get(), 1), 0);
    std::thread recorder([&] {
      const Fd client(::accept(listener.Get(), nullptr, nullptr));
      const std::string all = reply + "\n" + stream;
      std::string request(200, ' ');
      static_cast<void>(::recv(client.Get(), request.data(), request.size(), 0));
      for (std::size_t at = 0; at < all.size(); at += chunk) {
        ::send(client.Get(), all.data() + at, std::min(chunk, all.size() - at), MSG_NOSIGNAL);
      }
    });
    std::string problem;
    const auto client = LiveClient::Open(path, {}, problem);
    LiveRecord record;
    for (records = 0; client && client->Next(record, milliseconds(20'000), problem) == LiveClient::Got::Record;) {
      ++records;
      m_last = record;
    }
    recorder.join();
    return problem;
  }
  static std::string Encode(const LiveHeader& header, const std::string& payload) {
    const auto bytes = EncodeLiveHeader(header);
    return std::string(bytes.begin(), bytes.end()) + payload;
  }

  LiveRecord m_last;
};

// Catches a client that takes whatever comes for a record, asks for memory without end, or loses its place in what
// arrives in pieces.
TEST_F(LiveClientTest, AnythingElseThanARecordEndsTheStreamWithOneSentence) {
  const std::string reply = R"({"ok":true,"streams":[{},{}]})";
  const std::string record = Encode({1, true, true, 3, 5'000'000'000, 7}, "abc");
  const std::string none = Encode({0, false, false, 0, std::numeric_limits<std::int64_t>::max(), {}}, "");
  std::string tooLong = Encode({0, false, false, MaxLivePayloadBytes + 1, 0, {}}, "");
  std::string later = record;
  later[5] = '\x7F';
  later[7] = later[15] = 'x';
  const std::tuple<std::string, std::string, int, std::string> cases[] = {
      {reply, record + none + record, 3, "the recorder has ended the live stream"},
      {reply, record + later, 2, "the recorder has ended the live stream"},
      {reply, record + record.substr(0, 34), 1, "the recorder has ended the live stream in the middle of a record"},
      {reply, record + "T", 1, "the recorder has ended the live stream in the middle of a record"},
      {reply, "X" + record, 0, "what came is no live stream: a record begins with TVL1"},
      {reply, tooLong, 0, "a record of 8388609 bytes was announced, and 8388608 is the most there can be"},
      {reply, Encode({2, true, false, 0, 0, {}}, ""), 0, "a record of stream 2 came, and there are but 2"},
      {R"({"ok":true,"streams":{}})", record, 0, "its reply is none to a request for a live stream"},
      {R"({"ok":true})", record, 0, "its reply is none to a request for a live stream"},
      {R"({"ok":false,"error":"too many"})", "", 0, "gives no live stream: too many"},
      {"[]", record, 0, "its reply is no JSON object"},
  };
  for (const auto& [answer, stream, records, problem] : cases) {
    for (const std::size_t chunk : {std::size_t{1}, std::size_t{1} << 20}) {
      int got = 0;
      EXPECT_THAT(Read(answer, stream, chunk, got), testing::EndsWith(problem));
      EXPECT_EQ(got, records) << problem;
    }
  }
  EXPECT_EQ(std::string(m_last.payload.begin(), m_last.payload.end()), "abc");
  EXPECT_EQ(m_last.arrivedNs, 5'000'000'000);
  EXPECT_EQ(m_last.timestampNs, 7);
  EXPECT_TRUE(m_last.isKeyFrame && m_last.isAfterGap && m_last.stream == 1);
}

// Catches a position that is none, gravity that is left in, and numbers that are not known.
TEST(LiveSensors, TellWhatIsKnown) {
  Tavi::Gps::GpsData fix{};
  fix.HDOP = fix.PDOP = fix.VDOP = 100.0;
  fix.record_u_time = -1;
  EXPECT_EQ(Live::DescribeFix(fix), R"({"valid":false})");
  fix.isValidPackage = 1;
  fix.latitude = -48.123456789;
  fix.HDOP = 0.9, fix.noOfSatellites = 7, fix.altitude = -3.5;
  EXPECT_EQ(Live::DescribeFix(fix), R"({"valid":true,"latitude":-48.1234568,"longitude":0.0,"speedKnots":0.0,)"
                                    R"("course":0.0,"hdop":0.9,"satellites":7,"altitude":-3.5})");
  Tavi::Accel::AccDataPak block;
  block.scale = 4;
  block.g[3] = -1.0F, block.g[4] = 0.5F;
  EXPECT_EQ(Live::DescribeBlock(block), R"({"scaleG":4,"samples":[[0.0,0.5,0.0]]})");
  EXPECT_EQ(Live::DescribeState({12, 0xFB}), R"({"cpuPercent":12,"temperatureCelsius":-5})");
  EXPECT_EQ(Live::DescribeState({12, 0}), R"({"cpuPercent":12})");
}

}  // namespace
