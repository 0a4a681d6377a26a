// What browsers get of a recorder's live streams, and what a stalled one costs the others.
#include <algorithm>
#include <bit>
#include <map>

#include "Fleet/Web/Live/LiveHub.h"
#include "KMedia/H264/AnnexB.h"
#include "KMedia/Mp3/Mp3Frames.h"
#include "Kbase/Json/Json.h"
#include "Simulator/EncodedMaterial.h"
#include "Support/Fixtures.h"
#include "Support/VideoDecode.h"
#include "Web/FakeRecorder.h"

namespace Tavi::Web {
namespace {

using namespace std::chrono_literals;
using Simulator::AccessUnitBytes;
using Testing::FakeRecorder;

constexpr int Fps = 30;
constexpr std::int64_t FrameNs = 1'000'000'000 / Fps;
/// Entries arrive so much after their time stamp, and the recorder's steady clock stands there at the first.
constexpr std::int64_t LatencyNs = 40'000'000;
constexpr std::int64_t SteadyNs = 77'000'000'000;

/// Everything that a viewer has read, by kind.
struct Read {
  std::vector<MessagePtr> all;
  std::map<MessageKind, std::vector<MessagePtr>> byKind;

  [[nodiscard]] std::size_t Count(MessageKind kind) const {
    const auto found = byKind.find(kind);
    return found != byKind.end() ? found->second.size() : 0;
  }
  [[nodiscard]] std::string GetPayload(const MessagePtr& message) const {
    return {message->bytes.begin() + MessageHeaderBytes, message->bytes.end()};
  }
  [[nodiscard]] std::string GetCodec(MessageKind kind, std::size_t n) const {
    const std::string payload = GetPayload(byKind.at(kind).at(n));
    return payload.substr(1, static_cast<unsigned char>(payload[0]));
  }
  /// As a player would have it: the n-th init segment and the fragments of `kind`.
  [[nodiscard]] std::string BuildFile(MessageKind kind) const {
    const auto initKind = static_cast<MessageKind>(static_cast<int>(kind) - 1);
    const std::string init = GetPayload(byKind.at(initKind).at(0));
    std::string file = init.substr(1 + static_cast<unsigned char>(init[0]));
    for (const auto& fragment : byKind.at(kind)) file += GetPayload(fragment);
    return file;
  }
  /// JSON messages with this in them.
  [[nodiscard]] int CountJson(const std::string& text) const {
    const auto found = byKind.find(MessageKind::Json);
    if (found == byKind.end()) return 0;
    return static_cast<int>(std::count_if(found->second.begin(), found->second.end(), [&](const auto& message) {
      return GetPayload(message).find(text) != std::string::npos;
    }));
  }
  void Take(const MessagePtr& message) {
    const std::vector<std::uint8_t>& b = message->bytes;
    ASSERT_GE(b.size(), MessageHeaderBytes);
    EXPECT_EQ(std::uint32_t{b[1]} << 24 | b[2] << 16 | b[3] << 8 | b[4], b.size() - MessageHeaderBytes);
    EXPECT_EQ(b[0], static_cast<std::uint8_t>(message->kind));
    all.push_back(message);
    byKind[message->kind].push_back(message);
  }
  /// Reads until `enough` or a minute has passed.
  bool Until(LiveViewer& viewer, const std::function<bool()>& enough) {
    return Testing::WaitUntil([&] {
      while (const MessagePtr message = viewer.Read(0ms)) Take(message);
      return enough();
    });
  }
};

/// The NAL units of Annex B, each behind its length of four bytes, as MP4 has them.
std::string ToLengths(const AccessUnitBytes& unit) {
  std::string text;
  KMedia::H264::NalUnit nal;
  for (std::size_t offset = 0; KMedia::H264::NextNalUnit(unit, offset, nal);) {
    const auto size = static_cast<std::uint32_t>(nal.payload.size());
    for (int shift = 24; shift >= 0; shift -= 8) text.push_back(static_cast<char>(size >> shift));
    text.append(nal.payload.begin(), nal.payload.end());
  }
  return text;
}

class LiveHubTest : public Testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    m_recorder = std::make_unique<FakeRecorder>(GetSocket());
    m_hub = std::make_unique<LiveHub>(GetSocket());
    ASSERT_TRUE(m_hub->Start());
  }
  void TearDown() override {
    m_hub.reset();
    m_recorder.reset();
    TempDirTest::TearDown();
  }
  std::string GetSocket() { return m_dir + "ctl"; }
  std::shared_ptr<LiveViewer> AddViewer() {
    std::string problem;
    auto viewer = m_hub->AddViewer(problem);
    EXPECT_NE(viewer, nullptr) << problem;
    EXPECT_TRUE(m_recorder->WaitForClients(1));
    return viewer;
  }
  void Send(FakeRecorder::Stream stream, std::int64_t ptsNs, const AccessUnitBytes& unit, bool isKey,
            bool isAfterGap = false) {
    m_recorder->Send({stream, isKey, isAfterGap, 0, m_clockNs + ptsNs + LatencyNs, ptsNs}, unit);
  }
  /// Unit after unit at the rate, from number `first` on; every Fps-th is a key frame.
  void SendAll(FakeRecorder::Stream stream, const std::vector<AccessUnitBytes>& units, int first = 0) {
    for (const auto& unit : units) {
      Send(stream, first * FrameNs, unit, first % Fps == 0);
      ++first;
    }
  }

  std::unique_ptr<FakeRecorder> m_recorder;
  std::unique_ptr<LiveHub> m_hub;
  /// Where the time stamps' 0 is on the recorder's steady clock.
  std::int64_t m_clockNs = SteadyNs;
};

TEST_F(LiveHubTest, FragmentsHoldWhatWasDeliveredAtItsTime) {
  const auto pictures = Simulator::EncodeH264(320, 240, Fps, Fps, 61);
  const auto mp3 = Simulator::EncodeMp3(2.0);
  const auto viewer = AddViewer();
  // A camera that is uneven, as cameras are, and stands still for a moment.
  std::vector<std::int64_t> times;
  for (int i = 0; i < 61; ++i) times.push_back(i * FrameNs + (i % 3) * 4'000'000 + (i > 40 ? 700'000'000 : 0));
  for (int i = 0; i < 61; ++i) Send(FakeRecorder::Camera0, times[i], pictures[i], i % Fps == 0);
  SendAll(FakeRecorder::Camera1, Simulator::EncodeH264(160, 120, Fps, Fps, 61));
  const auto frames = KMedia::Mp3::SplitMp3Frames(mp3);
  const std::int64_t soundStart = 500'000'000;
  for (std::size_t i = 0; i < frames.frames.size(); ++i) {
    const std::int64_t pts = soundStart + static_cast<std::int64_t>(i) * 1152 * 1'000'000'000 / 44100;
    Send(FakeRecorder::Sound, pts, {frames.frames[i].begin(), frames.frames[i].end()}, true);
  }
  m_recorder->Send({FakeRecorder::Gps, true, false, 0, SteadyNs + 2'000'000'000, {}}, AccessUnitBytes{'{', '}'});
  Read read;
  ASSERT_TRUE(read.Until(*viewer, [&] { return read.CountJson("{\"gps\":{},\"t\":") == 1; }));

  ASSERT_EQ(read.Count(MessageKind::Camera0Init), 1);
  EXPECT_EQ(read.GetCodec(MessageKind::Camera0Init, 0).substr(0, 5), "avc1.");
  EXPECT_EQ(read.GetCodec(MessageKind::SoundInit, 0), "audio/mpeg");
  const std::string file = m_dir + "camera0.mp4";
  const std::string bytes = read.BuildFile(MessageKind::Camera0Fragment);
  Simulator::WriteBytes(file, {bytes.begin(), bytes.end()});
  const auto decoded = Testing::DecodeVideo(file);
  EXPECT_EQ(decoded.decodeErrors, 0);
  ASSERT_EQ(decoded.packets.size(), 60U) << "the last picture waits for the next one";
  ASSERT_EQ(decoded.frames.size(), 60U);
  for (std::size_t i = 0; i < decoded.packets.size(); ++i) {
    EXPECT_EQ(decoded.packets[i], ToLengths(pictures[i])) << i;
    EXPECT_NEAR(decoded.frames[i].seconds, static_cast<double>(times[i]) / 1e9, 0.0001) << i;
  }
  const std::string other = m_dir + "camera1.mp4";
  const std::string otherBytes = read.BuildFile(MessageKind::Camera1Fragment);
  Simulator::WriteBytes(other, {otherBytes.begin(), otherBytes.end()});
  EXPECT_NEAR(Testing::DecodeVideo(other).frames.at(30).seconds, 1.0, 0.0001) << "one time line for both";

  std::string soundBytes;
  for (const auto& part : read.byKind[MessageKind::SoundFragment]) soundBytes += read.GetPayload(part).substr(8);
  EXPECT_EQ(soundBytes, std::string(mp3.begin(), mp3.end()).substr(0, soundBytes.size()));
  EXPECT_GT(soundBytes.size(), mp3.size() * 9 / 10);
  const std::string part = read.GetPayload(read.byKind[MessageKind::SoundFragment].at(3));
  std::uint64_t bits = 0;
  for (int i = 0; i < 8; ++i) bits = bits << 8 | static_cast<unsigned char>(part[i]);
  EXPECT_NEAR(std::bit_cast<double>(bits), 0.5 + 3 * 4 * 1152 / 44100.0, 0.001);

  // audiotestsrc's tone: a sine of amplitude 0.8.
  const auto& levels = read.byKind[MessageKind::Json];
  double peak = -1000.0;
  double rms = -1000.0;
  int count = 0;
  for (const auto& message : levels) {
    const auto json = Kbase::Json::Parse(read.GetPayload(message));
    if (!json.contains("level")) continue;
    ++count;
    peak = json["level"]["peakDbfs"];
    rms = json["level"]["rmsDbfs"];
  }
  EXPECT_NEAR(count, 19, 2);
  EXPECT_NEAR(peak, -1.9, 0.5);
  EXPECT_NEAR(rms, -4.9, 0.5);
  EXPECT_TRUE(read.Until(*viewer, [&] { return read.CountJson(R"({"status":{"ok":true,"state":"recording"})") > 0; }));
}

TEST_F(LiveHubTest, ANewViewerBeginsWithTheNewestKeyFrame) {
  const auto first = AddViewer();
  SendAll(FakeRecorder::Camera0, Simulator::EncodeH264(160, 120, Fps, Fps, 51));
  Read before;
  ASSERT_TRUE(before.Until(*first, [&] { return before.Count(MessageKind::Camera0Fragment) == 50; }));

  const auto late = AddViewer();
  Read read;
  ASSERT_TRUE(read.Until(*late, [&] { return read.Count(MessageKind::Camera0Fragment) == 20; }));
  EXPECT_TRUE(read.byKind[MessageKind::Camera0Fragment].front()->isKeyFrame);
  EXPECT_EQ(read.Count(MessageKind::Camera0Init), 1);
  EXPECT_GT(read.CountJson("{\"live\":"), 0);

  std::vector<std::shared_ptr<LiveViewer>> others;
  for (std::size_t i = m_hub->CountViewers(); i < LiveHub::MostViewers; ++i) others.push_back(AddViewer());
  std::string problem;
  EXPECT_EQ(m_hub->AddViewer(problem), nullptr);
  EXPECT_NE(problem.find("32 viewers"), std::string::npos) << problem;
  others.pop_back();
  EXPECT_NE(m_hub->AddViewer(problem), nullptr);
}

TEST_F(LiveHubTest, NewParameterSetsAndGapsBeginAtAKeyFrame) {
  const auto small = Simulator::EncodeH264(160, 120, Fps, Fps, 31);
  const auto large = Simulator::EncodeH264(320, 240, Fps, Fps, 31);
  const auto viewer = AddViewer();
  SendAll(FakeRecorder::Camera0, small, 0);
  SendAll(FakeRecorder::Camera0, {large.begin(), large.begin() + 11}, 60);
  // The recorder has left something out; what comes before the next key frame cannot be decoded.
  Send(FakeRecorder::Camera0, 80 * FrameNs, large[12], false, true);
  SendAll(FakeRecorder::Camera0, {large.begin(), large.begin() + 2}, 90);
  Read read;
  ASSERT_TRUE(read.Until(*viewer, [&] { return read.Count(MessageKind::Camera0Fragment) == 31 + 11 + 1; }));
  EXPECT_EQ(read.Count(MessageKind::Camera0Init), 3);
  EXPECT_EQ(read.CountJson("{\"gap\":\"camera0\"}"), 1);
  EXPECT_TRUE(read.all.back()->isKeyFrame);
}

/// Ten viewers, three of which read nothing; the pictures are more than anybody keeps for them.
TEST_F(LiveHubTest, StalledViewersLoseOnlyTheirOwn) {
  constexpr std::size_t Readers = 7;
  const auto material = Simulator::EncodeH264(640, 480, Fps, Fps, Fps);
  const std::size_t round = Simulator::Join(material).size();
  const int rounds = static_cast<int>(2 * LiveViewer::MostUnreadBytes / round) + 2;
  std::vector<std::shared_ptr<LiveViewer>> viewers;
  for (std::size_t i = 0; i < Readers + 3; ++i) viewers.push_back(AddViewer());
  std::vector<Read> reads(Readers);
  for (int i = 0; i < rounds; ++i) {
    SendAll(FakeRecorder::Camera0, material, i * Fps);
    const auto sent = static_cast<std::size_t>((i + 1) * Fps - 1);
    for (std::size_t v = 0; v < Readers; ++v) {
      ASSERT_TRUE(reads[v].Until(*viewers[v], [&] { return reads[v].Count(MessageKind::Camera0Fragment) == sent; }));
    }
    for (const auto& viewer : viewers) EXPECT_LE(viewer->GetUnreadBytes(), LiveViewer::MostUnreadBytes);
  }
  for (std::size_t v = 0; v < Readers; ++v) {
    EXPECT_EQ(viewers[v]->GetGaps(), 0U);
    const auto& fragments = reads[v].byKind[MessageKind::Camera0Fragment];
    for (std::size_t i = 0; i < fragments.size(); ++i) ASSERT_EQ(fragments[i]->number, i);
  }
  for (std::size_t v = Readers; v < viewers.size(); ++v) EXPECT_EQ(viewers[v]->GetGaps(), 1U);

  // One that has read something and wakes up is told what it has lost, and goes on at the newest key frame.
  Read read;
  ASSERT_TRUE(read.Until(*viewers.back(), [&] { return read.Count(MessageKind::Camera0Fragment) == Fps - 1; }));
  EXPECT_TRUE(read.byKind[MessageKind::Camera0Fragment].front()->isKeyFrame);
  const std::size_t more = read.byKind[MessageKind::Camera0Fragment].size();
  for (int i = 0; i < rounds; ++i) SendAll(FakeRecorder::Camera0, material, (rounds + i) * Fps);
  ASSERT_TRUE(read.Until(*viewers.back(), [&] {
    return read.Count(MessageKind::Camera0Fragment) > more &&
           read.byKind[MessageKind::Camera0Fragment].back()->number == static_cast<std::uint64_t>(2 * rounds * Fps - 2);
  }));
  EXPECT_EQ(read.CountJson("{\"gap\":\"camera0\"}"), 1);
  EXPECT_EQ(read.CountJson("{\"gap\":\"camera1\"}"), 0) << "of which there was nothing to lose";
  EXPECT_TRUE(read.byKind[MessageKind::Camera0Fragment][more]->isKeyFrame);
}

TEST_F(LiveHubTest, ARecorderMayGoAndComeBack) {
  const auto pictures = Simulator::EncodeH264(160, 120, Fps, Fps, 31);
  const auto viewer = AddViewer();
  SendAll(FakeRecorder::Camera0, pictures);
  Read read;
  ASSERT_TRUE(read.Until(*viewer, [&] { return read.Count(MessageKind::Camera0Fragment) == 30; }));
  m_recorder.reset();
  ASSERT_TRUE(read.Until(*viewer, [&] { return read.CountJson(R"({"recorder":"gone","reason":")") > 0; }));
  EXPECT_FALSE(viewer->HasEnded());

  m_recorder = std::make_unique<FakeRecorder>(GetSocket());
  ASSERT_TRUE(m_recorder->WaitForClients(1));
  // Its time stamps begin anew, 20 s later.
  m_clockNs += 20'000'000'000;
  SendAll(FakeRecorder::Camera0, pictures);
  SendAll(FakeRecorder::Camera1, pictures);
  ASSERT_TRUE(read.Until(*viewer, [&] { return read.Count(MessageKind::Camera1Fragment) == 30; }));
  EXPECT_EQ(read.CountJson(R"({"recorder":"back"})"), 2) << "told at the first connection, too";
  const std::string file = m_dir + "camera0.mp4";
  const std::string bytes = read.BuildFile(MessageKind::Camera0Fragment);
  Simulator::WriteBytes(file, {bytes.begin(), bytes.end()});
  const auto decoded = Testing::DecodeVideo(file);
  ASSERT_EQ(decoded.frames.size(), 60U);
  EXPECT_EQ(decoded.decodeErrors, 0);
  EXPECT_NEAR(decoded.frames[30].seconds, 20.0, 0.001);

  m_hub->Stop();
  EXPECT_TRUE(viewer->HasEnded());
  EXPECT_EQ(viewer->Read(0ms), nullptr);
}

}  // namespace
}  // namespace Tavi::Web
