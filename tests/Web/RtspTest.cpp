// The cameras over RTSP, as a player that people have sees them.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <fstream>
#include <thread>

#include "Fleet/Web/Live/LiveHub.h"
#include "Fleet/Web/Rtsp/RtspServer.h"
#include "KMedia/Mp3/Mp3Frames.h"
#include "Simulator/EncodedMaterial.h"
#include "Support/Fixtures.h"
#include "Support/VideoDecode.h"
#include "Web/FakeRecorder.h"

namespace Tavi::Web {
namespace {

using Testing::FakeRecorder;

constexpr int Fps = 30;
constexpr int Gop = 15;
constexpr std::int64_t FrameNs = 1'000'000'000 / Fps;

/// What both cameras and the microphone deliver, over and over, at its own pace.
class Drive {
 public:
  explicit Drive(FakeRecorder& recorder) : m_recorder(recorder), m_thread([this] { Run(); }) {}
  ~Drive() {
    m_ends = true;
    m_thread.join();
  }

 private:
  void Run() {
    const auto start = std::chrono::steady_clock::now();
    const auto frames = KMedia::Mp3::SplitMp3Frames(m_mp3);
    std::int64_t sent = 0;
    for (std::int64_t i = 0; !m_ends; ++i) {
      const std::int64_t now = i * FrameNs;
      const auto n = static_cast<std::size_t>(i) % m_front.size();
      std::this_thread::sleep_until(start + std::chrono::nanoseconds(now));
      m_recorder.Send({FakeRecorder::Camera0, n % Gop == 0, false, 0, now, now}, m_front[n]);
      m_recorder.Send({FakeRecorder::Camera1, n % Gop == 0, false, 0, now, now}, m_cab[n]);
      for (std::int64_t at = 0; (at = sent * 1152 * 1'000'000'000 / 44100) <= now; ++sent) {
        m_recorder.Send({FakeRecorder::Sound, true, false, 0, now, at},
                        frames.frames[static_cast<std::size_t>(sent) % frames.frames.size()]);
      }
    }
  }

  const std::vector<Simulator::AccessUnitBytes> m_front = Simulator::EncodeH264(640, 480, Fps, Gop, Gop);
  const std::vector<Simulator::AccessUnitBytes> m_cab = Simulator::EncodeH264(320, 240, Fps, Gop, Gop);
  const std::vector<std::uint8_t> m_mp3 = Simulator::EncodeMp3(1.0);
  FakeRecorder& m_recorder;
  std::atomic<bool> m_ends{false};
  std::thread m_thread;
};

class RtspTest : public Testing::TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    if (std::system("command -v ffmpeg > /dev/null") != 0) GTEST_SKIP() << "there is no ffmpeg";
    m_recorder = std::make_unique<FakeRecorder>(m_dir + "ctl");
    m_drive = std::make_unique<Drive>(*m_recorder);
    m_hub = std::make_unique<LiveHub>(m_dir + "ctl");
    m_hub->Start();
    m_settings.enabled = true;
    // The system's choice.
    m_settings.port = 0;
  }
  void TearDown() override {
    m_server.reset();
    m_hub.reset();
    m_drive.reset();
    m_recorder.reset();
    TempDirTest::TearDown();
  }
  void Serve() {
    std::string problem;
    m_server = RtspServer::Start(m_settings, *m_hub, problem);
    ASSERT_NE(m_server, nullptr) << problem;
  }
  std::string UseCredentials(const std::string& text, unsigned mode) {
    m_settings.credentialsFile = m_dir + "credentials";
    std::ofstream(m_settings.credentialsFile) << text;
    ::chmod(m_settings.credentialsFile.c_str(), mode);
    std::string problem;
    m_server = RtspServer::Start(m_settings, *m_hub, problem);
    return problem;
  }
  std::string GetUrl(const std::string& path, const std::string& user = "") {
    return "rtsp://" + user + "127.0.0.1:" + std::to_string(m_server->GetPort()) + path;
  }
  /// Takes a second of it as it is; what the player complains of, empty for success.
  std::string Play(const std::string& url, const std::string& transport, const std::string& file) {
    const std::string log = file + ".log";
    // It would look at the streams for five seconds before it begins.
    const std::string command = "timeout 50 ffmpeg -v error -analyzeduration 300000 -fflags nobuffer -rtsp_transport " +
                                transport + " -i " + url + " -t 1 -c copy -y " + file + " < /dev/null > " + log +
                                " 2>&1";
    const int status = std::system(command.c_str());
    return Testing::ReadFile(log) + (status == 0 ? "" : "status " + std::to_string(WEXITSTATUS(status)));
  }

  std::unique_ptr<FakeRecorder> m_recorder;
  std::unique_ptr<Drive> m_drive;
  std::unique_ptr<LiveHub> m_hub;
  std::unique_ptr<RtspServer> m_server;
  RtspSettings m_settings;
};

TEST_F(RtspTest, PlayersGetBothCamerasWithTheirSound) {
  Serve();
  std::array<std::string, 3> problems;
  // At once, over both transports, two of them the same camera.
  std::thread other([&] { problems[1] = Play(GetUrl("/cab"), "udp", m_dir + "1.mp4"); });
  std::thread third([&] { problems[2] = Play(GetUrl("/camera1"), "tcp", m_dir + "2.mp4"); });
  problems[0] = Play(GetUrl("/front-left"), "tcp", m_dir + "0.mp4");
  other.join();
  third.join();
  for (std::size_t i = 0; i < problems.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(problems[i], "");
    const auto video = Testing::DecodeVideo(m_dir + std::to_string(i) + ".mp4");
    EXPECT_EQ(video.width, i == 0 ? 640 : 320);
    EXPECT_EQ(video.codecTag, "avc1");
    EXPECT_EQ(video.decodeErrors, 0);
    EXPECT_GE(video.frames.size(), 15U);
    EXPECT_GT(video.audioSeconds, 0.7);
  }
  EXPECT_EQ(m_recorder->CountClients(), 1U) << "one connection for all";
}

TEST_F(RtspTest, OthersNeedTheRightPassword) {
  m_settings.address = "0.0.0.0";
  std::string problem;
  EXPECT_EQ(RtspServer::Start(m_settings, *m_hub, problem), nullptr);
  EXPECT_NE(problem.find("rtsp.address: 0.0.0.0 can be reached by others"), std::string::npos) << problem;
  EXPECT_NE(UseCredentials("fleet:secret\n", 0644).find("others may read it"), std::string::npos);
  EXPECT_NE(UseCredentials("fleet\n", 0600).find("not user:password"), std::string::npos);
  ASSERT_EQ(UseCredentials("fleet:secret\n", 0600), "");
  for (const char* user : {"", "fleet:secret2@", "other:secret@"}) {
    EXPECT_NE(Play(GetUrl("/camera0", user), "tcp", m_dir + "no.mp4").find("401"), std::string::npos) << user;
  }
  EXPECT_EQ(Play(GetUrl("/camera0", "fleet:secret@"), "tcp", m_dir + "yes.mp4"), "");
}

/// A client that asks for a camera within the connection and never reads again.
class StalledClient {
 public:
  bool Play(int port) {
    m_socket = Ksystem::FileUtils::UniqueFd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int bytes = 8192;
    ::setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVBUF, &bytes, sizeof(bytes));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) return false;
    m_url = "rtsp://127.0.0.1:" + std::to_string(port) + "/camera0";
    Ask("DESCRIBE", "", "Accept: application/sdp\r\n");
    const std::string setup = Ask("SETUP", "/stream=0", "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n");
    const std::size_t session = setup.find("Session: ");
    if (session == std::string::npos) return false;
    const std::string line = setup.substr(session, setup.find_first_of(";\r", session) - session);
    return Ask("PLAY", "", line + "\r\n").find("200 OK") != std::string::npos;
  }

 private:
  std::string Ask(const std::string& method, const std::string& track, const std::string& header) {
    const std::string request =
        method + " " + m_url + track + " RTSP/1.0\r\nCSeq: " + std::to_string(++m_number) + "\r\n" + header + "\r\n";
    std::string reply;
    if (!Ksystem::FileUtils::WriteAll(m_socket.Get(), request.data(), request.size())) return reply;
    for (char c = 0; reply.find("\r\n\r\n") == std::string::npos && ::read(m_socket.Get(), &c, 1) == 1;) reply += c;
    const std::size_t length = reply.find("Content-Length: ");
    std::string body(length != std::string::npos ? std::stoul(reply.substr(length + 16)) : 0, ' ');
    for (char& c : body) static_cast<void>(::read(m_socket.Get(), &c, 1));
    return reply + body;
  }

  Ksystem::FileUtils::UniqueFd m_socket;
  std::string m_url;
  int m_number = 0;
};

TEST_F(RtspTest, AStalledClientIsDroppedAndNobodyElseNotices) {
  m_settings.stalledMs = 2000;
  Serve();
  StalledClient stalled;
  ASSERT_TRUE(stalled.Play(m_server->GetPort()));
  EXPECT_EQ(Play(GetUrl("/camera0"), "tcp", m_dir + "0.mp4"), "");
  const auto video = Testing::DecodeVideo(m_dir + "0.mp4");
  EXPECT_EQ(video.decodeErrors, 0);
  EXPECT_GE(video.frames.size(), 15U);
  EXPECT_TRUE(Testing::WaitUntil([&] { return m_server->CountClients() == 0; }));
}

}  // namespace
}  // namespace Tavi::Web
