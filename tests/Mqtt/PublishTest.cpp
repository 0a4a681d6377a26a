// tavi-mqtt with a real broker: what arrives there, whoever of both goes and comes.
#include <gmock/gmock.h>

#include <algorithm>
#include <random>

#include "Control/Served.h"
#include "EventStore/Chain.h"
#include "EventStore/EventWriter.h"
#include "Kbase/Json/Json.h"
#include "Mqtt/RealBroker.h"

namespace {

using namespace Tavi::EventStore;
using namespace Tavi::Testing;
using Kbase::Json::Parse;
using testing::ElementsAreArray;
using testing::HasSubstr;
using Json = nlohmann::ordered_json;

int GetNumber(const char* name, int otherwise) {
  const char* text = std::getenv(name);
  return text != nullptr ? std::atoi(text) : otherwise;
}

std::string ToHex(const std::string& bytes) {
  std::string all;
  for (const char byte : bytes) {
    char digits[3];
    std::snprintf(digits, sizeof(digits), "%02x", static_cast<unsigned char>(byte));
    all += digits;
  }
  return all;
}

class PublishTest : public TempDirTest {
 protected:
  void SetUp() override {
    TempDirTest::SetUp();
    if (RealBroker::FindProgram("mosquitto").empty()) GTEST_SKIP() << "there is no mosquitto on this machine";
    mosquitto_lib_init();
    m_events = m_dir + "events";
    std::filesystem::create_directory(m_events);
    m_broker = std::make_unique<RealBroker>(m_dir);
    m_settings = {{"broker", {{"host", "127.0.0.1"}, {"port", m_broker->GetPort()}, {"longestPauseSeconds", 1}}},
                  {"unit", "car-7"},
                  {"eventsDir", m_events},
                  {"controlSocket", m_dir + "c.sock"},
                  {"stateFile", m_dir + "state/acknowledged"},
                  {"healthSeconds", 1}};
  }
  void TearDown() override {
    m_program.End(SIGKILL);
    m_listener.reset();
    TempDirTest::TearDown();
  }
  void StartBroker() {
    m_broker->Start();
    m_listener = std::make_unique<Listener>(m_broker->GetPort());
    ASSERT_TRUE(WaitUntil([&] { return m_listener->GetSubscriptions() == 1; }));
  }
  void StartProgram() {
    std::ofstream(m_dir + "mqtt.json") << m_settings.dump();
    m_program.Start({MQTT_PROGRAM, "--config", m_dir + "mqtt.json"}, m_dir + "err");
  }
  /// From then on events are new ones.
  void WaitForFirstLook() {
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(m_dir + "state/acknowledged"); })) << Err();
  }
  [[nodiscard]] std::string Err() const { return ReadFile(m_dir + "err"); }
  [[nodiscard]] long CountErr(const std::string& text) const {
    const std::string all = Err();
    long count = 0;
    for (auto at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
    return count;
  }
  /// Saves an event as the recorder does; its description's text.
  std::string AddEvent(const std::string& label = "") {
    EventDescription event;
    event.timeMs = 1'795'268'400'123 + 1000 * m_added++;
    event.label = label;
    event.maxG = 0.5;
    event.missing = {{"Audio", 2.5, "begins late"}};
    event.streams = {{"Gps", 30, 1.0, -15.0, 15.0, {}, {}}};
    std::ofstream(m_dir + "gps.dat") << "fix";
    std::string problem;
    EventWriter writer(m_events);
    auto identity = Identity::LoadOrMake(m_dir + "identity.pem", problem);
    EXPECT_TRUE(identity) << problem;
    writer.SignWith(std::move(*identity));
    EXPECT_TRUE(writer.Commit(event, {{"Gps", m_dir + "gps.dat"}}, false, m_eventDir, problem)) << problem;
    return ReadFile(m_eventDir + "/" + EventJsonName);
  }
  /// What came, each once, in the order in which it came first.
  std::vector<std::string> GetFirsts() {
    std::vector<std::string> firsts;
    for (const auto& payload : m_listener->Get("tavi/car-7/event")) {
      if (std::ranges::find(firsts, payload) == firsts.end()) firsts.push_back(payload);
    }
    return firsts;
  }

  std::unique_ptr<RealBroker> m_broker;
  std::unique_ptr<Listener> m_listener;
  Child m_program;
  Json m_settings;
  std::string m_events;
  std::string m_eventDir;
  int m_added = 0;
};

// Catches a description that is not what was signed, events of before that flood the broker, and an event that is told
// again after a restart.
TEST_F(PublishTest, EventsComeOnceAndAsTheyWereSigned) {
  AddEvent("of before");
  StartBroker();
  StartProgram();
  WaitForFirstLook();
  const std::string first = AddEvent("Tür \"1\"");
  const std::string firstDir = m_eventDir;
  const std::string second = AddEvent();
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event/summary", 2)) << Err();
  EXPECT_THAT(m_listener->Get("tavi/car-7/event"), ElementsAreArray({first, second}));
  const Json summary = Parse(m_listener->Get("tavi/car-7/event/summary")[0]);
  const Json description = Parse(first);
  EXPECT_EQ(summary["id"], description["id"]);
  EXPECT_EQ(summary["label"], "Tür \"1\"");
  EXPECT_EQ(summary["missing"], "Audio");
  EXPECT_EQ(summary["sequence"], description["seal"]["sequence"]);
  EXPECT_EQ(summary["signature"], ToHex(ReadFile(firstDir + "/" + SignatureName)));
  EXPECT_EQ(summary["signature"].get<std::string>().size(), 128U);

  EXPECT_EQ(m_program.End(SIGTERM), 0);
  ASSERT_TRUE(WaitUntil([&] { return m_listener->GetLast("tavi/car-7/availability") == "offline"; }));
  const std::string third = AddEvent();
  StartProgram();
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event/summary", 3)) << Err();
  EXPECT_THAT(m_listener->Get("tavi/car-7/event"), ElementsAreArray({first, second, third}));
}

// Catches a health or presence that whoever comes later does not find, and one that leaves out what is wrong.
TEST_F(PublishTest, HealthAndPresenceAreThereForWhoComesLater) {
  TestHandler handler;
  Tavi::Recorder::ControlServer server(handler);
  std::string problem;
  ASSERT_TRUE(server.Open(m_dir + "c.sock", problem)) << problem;
  handler.SetReply("status", Parse(R"({"state":"recording","storage":{"freeBytes":5,"problem":"","eventsDir":")" +
                                   m_events + R"("},"sources":{"gps":{"state":"missing","problem":"no port"}}})"));
  handler.SetReply("metrics", {{"text", "# TYPE\ntavi_temperature_celsius 41.5\ntavi_x 3\n"}});
  m_settings.erase("eventsDir");
  StartBroker();
  StartProgram();
  WaitForFirstLook();
  const Json event = Parse(AddEvent());
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event/summary", 1)) << Err();
  Listener late(m_broker->GetPort());
  ASSERT_TRUE(WaitUntil([&] { return late.GetRetained().size() == 10; })) << "two, and eight of discovery";
  const Json health = Parse(late.GetRetained()["tavi/car-7/health"]);
  EXPECT_EQ(health["state"], "recording");
  EXPECT_EQ(health["temperatureCelsius"], 41.5);
  EXPECT_EQ(health["problems"], Json::array({"gps is missing: no port"}));
  EXPECT_EQ(late.GetRetained()["tavi/car-7/availability"], "online");
  ASSERT_TRUE(WaitUntil([&] {
    const Json last = Parse(m_listener->GetLast("tavi/car-7/health"))["lastEvent"];
    return last.is_object() && last["id"] == event["id"] && last["time"] == event["time"];
  })) << m_listener->GetLast("tavi/car-7/health");
}

// Catches values that a dashboard asks for at topics or by keys that no message has.
TEST_F(PublishTest, DashboardsAreToldOfValuesThatAreThere) {
  StartBroker();
  StartProgram();
  const std::string prefix = "homeassistant/";
  ASSERT_TRUE(m_listener->WaitFor("homeassistant/binary_sensor/tavi_car-7/connection/config", 1)) << Err();
  const Json free = Parse(m_listener->GetLast(prefix + "sensor/tavi_car-7/free/config"));
  EXPECT_EQ(free["state_topic"], "tavi/car-7/health");
  EXPECT_EQ(free["availability_topic"], "tavi/car-7/availability");
  EXPECT_EQ(free["device"]["identifiers"], Json::array({"tavi_car-7"}));
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/health", 1));
  const Json health = Parse(m_listener->GetLast("tavi/car-7/health"));
  EXPECT_EQ(health["state"], "absent") << "no recorder listens";
  EXPECT_EQ(health["problem"], true);
  for (const std::string key : {"state", "free", "events", "temperature", "last_event", "unpublished"}) {
    const Json config = Parse(m_listener->GetLast(prefix + "sensor/tavi_car-7/" + key + "/config"));
    std::string value = config.value("value_template", "").substr(std::string("{{ value_json.").size());
    value.resize(value.find_first_of(". "));
    EXPECT_TRUE(health.contains(value)) << key << ": " << value;
  }
}

// Catches events that are lost, or told in another order, when the broker is killed while they come, or the program is;
// and one that never ends to say the same ones. scripts/prove-mqtt.sh runs it for longer.
TEST_F(PublishTest, NothingIsLostWhereBrokerAndProgramAreKilled) {
  const int events = GetNumber("TAVI_MQTT_EVENTS", 20);
  const int brokerKills = GetNumber("TAVI_MQTT_BROKER_KILLS", 3);
  const int programKills = GetNumber("TAVI_MQTT_PROGRAM_KILLS", 3);
  std::mt19937 random(7);
  StartBroker();
  StartProgram();
  WaitForFirstLook();
  std::vector<std::string> saved;
  const int kills = brokerKills + programKills;
  for (int kill = 0; kill <= kills; ++kill) {
    const std::size_t due = static_cast<std::size_t>(events * (kill + 1) / (kills + 1));
    // Killed before, while and after they are said.
    const std::size_t heard = saved.size() + random() % (due - saved.size() + 1);
    while (saved.size() < due) saved.push_back(AddEvent());
    if (kill == kills) break;
    ASSERT_TRUE(WaitUntil([&] { return GetFirsts().size() >= heard; })) << Err();
    // In turn, as long as there are any of both.
    const int pairs = std::min(brokerKills, programKills);
    const bool isBroker = kill < 2 * pairs ? kill % 2 == 0 : brokerKills > programKills;
    if (isBroker) {
      const int before = m_listener->GetSubscriptions();
      m_broker->Kill();
      // Who hears is there before the one who speaks: a broker keeps nothing for nobody.
      m_program.Signal(SIGSTOP);
      m_broker->Start();
      ASSERT_TRUE(WaitUntil([&] { return m_listener->GetSubscriptions() > before; }));
      m_program.Signal(SIGCONT);
    } else {
      m_program.End(SIGKILL);
      StartProgram();
    }
  }
  ASSERT_TRUE(WaitUntil([&] { return GetFirsts().size() >= saved.size(); })) << Err();
  EXPECT_EQ(GetFirsts(), saved);
  const auto repeats = m_listener->Get("tavi/car-7/event").size() - saved.size();
  EXPECT_LE(repeats, static_cast<std::size_t>(kills)) << "one event is on its way at a time";
  std::cout << events << " events, " << brokerKills << " kills of the broker, " << programKills
            << " of the program: all arrived in order, " << repeats << " twice\n";
}

// Catches a will that is not said when the unit loses its power, one that is said of an older run, and the older
// version of MQTT without any of it.
TEST_F(PublishTest, TheBrokerSaysThatAUnitIsGone) {
  StartBroker();
  StartProgram();
  ASSERT_TRUE(WaitUntil([&] { return m_listener->GetLast("tavi/car-7/availability") == "online"; })) << Err();
  m_program.End(SIGKILL);
  ASSERT_TRUE(WaitUntil([&] { return m_listener->GetLast("tavi/car-7/availability") == "offline"; }));
  m_settings["broker"]["protocol"] = "3.1.1";
  const std::string event = AddEvent();
  StartProgram();
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event", 1)) << Err();
  EXPECT_EQ(m_listener->GetLast("tavi/car-7/event"), event);
  EXPECT_EQ(m_listener->GetLast("tavi/car-7/availability"), "online");
}

// Catches an event that counts as published because the broker has acknowledged to throw it away.
TEST_F(PublishTest, WhatTheBrokerRefusesIsSaidAgainUntilItTakesIt) {
  m_broker->Configure("allow_anonymous true\nacl_file " + m_dir + "acl\n");
  std::ofstream(m_dir + "acl") << "topic read #\ntopic write tavi/+/availability\n";
  chmod((m_dir + "acl").c_str(), 0600);
  StartBroker();
  StartProgram();
  WaitForFirstLook();
  const std::string event = AddEvent();
  ASSERT_TRUE(WaitUntil([&] { return CountErr("the broker refuses an event: Not authorized") == 1; })) << Err();
  std::ofstream(m_dir + "acl") << "topic readwrite #\n";
  m_broker->Reload();
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event", 1)) << Err();
  EXPECT_EQ(m_listener->GetLast("tavi/car-7/event"), event);
}

// Catches a line a try, and a password in the log.
TEST_F(PublishTest, AWrongPasswordIsOneLine) {
  if (RealBroker::FindProgram("mosquitto_passwd").empty()) GTEST_SKIP() << "there is no mosquitto_passwd";
  const std::string passwords = m_dir + "passwords";
  ASSERT_EQ(std::system((RealBroker::FindProgram("mosquitto_passwd") + " -c -b " + passwords + " car right").c_str()),
            0);
  m_broker->Configure("allow_anonymous false\npassword_file " + passwords + "\n");
  m_broker->Start();
  std::ofstream(m_dir + "secret") << "wrong-one\n";
  chmod((m_dir + "secret").c_str(), 0600);
  m_settings["broker"]["user"] = "car";
  m_settings["broker"]["passwordFile"] = m_dir + "secret";
  StartProgram();
  const auto countRefusals = [&] {
    const std::string log = ReadFile(m_dir + "broker.log");
    const auto first = log.find("not authorised");
    return first == std::string::npos ? 0 : 1 + (log.find("not authorised", first + 1) != std::string::npos);
  };
  ASSERT_TRUE(WaitUntil([&] { return countRefusals() == 2; })) << ReadFile(m_dir + "broker.log");
  ASSERT_TRUE(WaitUntil([&] { return CountErr("is away:") > 0; }));
  // Its end writes what is still to be written.
  EXPECT_EQ(m_program.End(SIGTERM), 0);
  EXPECT_EQ(CountErr("is away: it refuses: Not authorized"), 1) << Err();
  EXPECT_EQ(CountErr("wrong-one"), 0);
  std::ofstream(m_dir + "secret") << "right\n";
  StartProgram();
  EXPECT_TRUE(WaitUntil([&] { return CountErr("connected to the broker") == 1; })) << Err();
}

// Catches one event that stands in the way of all others, and a state that is damaged and loses events.
TEST_F(PublishTest, DamageEndsNothing) {
  m_settings["earlierEvents"] = true;
  StartBroker();
  const std::string whole = AddEvent();
  AddEvent();
  ASSERT_EQ(truncate((m_eventDir + "/event.json").c_str(), (1 << 20) + 1), 0);
  AddEvent();
  std::ofstream(m_eventDir + "/event.json") << "{";
  StartProgram();
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event/summary", 2)) << Err();
  EXPECT_THAT(m_listener->Get("tavi/car-7/event"), ElementsAreArray({whole, std::string("{")}));
  EXPECT_THAT(m_listener->GetLast("tavi/car-7/event/summary"), HasSubstr("\"problem\":"));
  ASSERT_TRUE(WaitUntil([&] { return CountErr("is put off, others come first") == 1; })) << Err();
  m_program.End(SIGKILL);
  std::ofstream(m_dir + "state/acknowledged") << "acknowledged 1\n2026";
  StartProgram();
  ASSERT_TRUE(m_listener->WaitFor("tavi/car-7/event/summary", 4)) << Err();
  ASSERT_TRUE(WaitUntil([&] { return CountErr("acknowledged is damaged and was put aside") == 1; })) << Err();
  m_program.End(SIGTERM);
  m_settings["stateFile"] = "/proc/none/acknowledged";
  StartProgram();
  EXPECT_EQ(m_program.Wait(), 1);
  EXPECT_THAT(Err(), HasSubstr("tavi-mqtt: stateFile: cannot write /proc/none/acknowledged.new"));
}

// Catches a program that hangs in the network when it is to end.
TEST_F(PublishTest, EndsAtOnceWhileABrokerIsMute) {
  const MutePort mute;
  for (const bool isEncrypted : {false, true}) {
    m_settings["broker"]["port"] = mute.GetPort();
    m_settings["tls"]["enabled"] = isEncrypted;
    StartProgram();
    ASSERT_TRUE(WaitUntil([&] { return std::filesystem::exists(m_dir + "state/acknowledged"); })) << Err();
    std::filesystem::remove(m_dir + "state/acknowledged");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(m_program.End(SIGTERM), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10 * Patience())) << isEncrypted;
  }
}

class EncryptedPublishTest : public PublishTest {
 protected:
  void SetUp() override {
    PublishTest::SetUp();
    if (IsSkipped()) return;
    if (access("/usr/bin/openssl", X_OK) != 0) GTEST_SKIP() << "there is no openssl on this machine";
    for (const std::string name : {"ca", "other"}) MakeAuthority(name);
    MakeCertificate("broker", "subjectAltName=DNS:localhost");
    MakeCertificate("unit", "keyUsage=digitalSignature");
  }
  void Ssl(const std::string& words) {
    ASSERT_EQ(std::system(("cd " + m_dir + " && openssl " + words + " 2>" + m_dir + "openssl.log").c_str()), 0)
        << words << ReadFile(m_dir + "openssl.log");
  }
  void MakeAuthority(const std::string& name) {
    Ssl("req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=" + name + " -keyout " +
        name + ".key -out " + name + ".pem");
  }
  void MakeCertificate(const std::string& name, const std::string& extension) {
    std::ofstream(m_dir + name + ".ext") << extension << "\n";
    Ssl("req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + name + " -keyout " + name +
        ".key -out " + name + ".csr");
    Ssl("x509 -req -in " + name + ".csr -CA ca.pem -CAkey ca.key -set_serial 1 -days 2 -extfile " + name +
        ".ext -out " + name + ".pem");
    chmod((m_dir + name + ".key").c_str(), 0600);
  }
};

// Catches a connection that is not encrypted, to a broker whose certificate or name nobody has checked, and one without
// the unit's own certificate.
TEST_F(EncryptedPublishTest, GoesToTheBrokerOfThatCertificateOnly) {
  m_broker->Configure("cafile " + m_dir + "ca.pem\ncertfile " + m_dir + "broker.pem\nkeyfile " + m_dir +
                      "broker.key\nrequire_certificate true\nuse_identity_as_username true\n");
  m_broker->Start();
  m_settings["broker"]["host"] = "localhost";
  m_settings["tls"] = {{"enabled", true},
                       {"caFile", m_dir + "other.pem"},
                       {"certificateFile", m_dir + "unit.pem"},
                       {"keyFile", m_dir + "unit.key"}};
  StartProgram();
  ASSERT_TRUE(WaitUntil([&] { return CountErr("certificate verify failed") == 1; })) << Err();
  EXPECT_EQ(m_program.End(SIGTERM), 0);
  m_settings["tls"]["caFile"] = m_dir + "ca.pem";
  m_settings["broker"]["host"] = "127.0.0.1";
  StartProgram();
  ASSERT_TRUE(WaitUntil([&] { return CountErr("127.0.0.1:") == 1; })) << Err();
  EXPECT_EQ(CountErr("connected to"), 0) << "a name that the certificate has not";
  EXPECT_EQ(m_program.End(SIGTERM), 0);
  m_settings["broker"]["host"] = "localhost";
  AddEvent();
  m_settings["earlierEvents"] = true;
  std::filesystem::remove(m_dir + "state/acknowledged");
  StartProgram();
  ASSERT_TRUE(WaitUntil([&] {
    return ReadFile(m_dir + "state/acknowledged").size() > std::string("acknowledged 1\n").size();
  })) << Err();
  EXPECT_THAT(ReadFile(m_dir + "broker.log"), HasSubstr("u'unit'"));
}

}  // namespace
