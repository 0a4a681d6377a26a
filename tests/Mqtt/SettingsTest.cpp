// The settings of tavi-mqtt: a mistake is one line, and nothing is published to nowhere.
#include <gmock/gmock.h>
#include <sys/stat.h>

#include <fstream>
#include <functional>

#include "Fleet/Mqtt/Settings.h"
#include "Support/Fixtures.h"

namespace {

using namespace Tavi::Mqtt;
using testing::StartsWith;

// Catches settings with which two units would be one, topics that nobody could subscribe to, and certificates that are
// not looked at.
TEST(MqttSettings, WhatDoesNotFitTogetherIsOneLine) {
  const struct {
    std::function<void(Settings&)> change;
    std::string expected;
  } cases[] = {
      {[](Settings&) {}, ""},
      {[](Settings& s) { s.broker.host.clear(); }, "field broker.host: empty; give the broker's name or address"},
      {[](Settings& s) { s.unit = "a/b"; }, "field unit: "},
      {[](Settings& s) { s.unit = "localhost"; }, "field unit: the machine's name is \"localhost\""},
      {[](Settings& s) { s.topicPrefix = "fleet//x"; }, "field topicPrefix: \"fleet//x\" is not possible"},
      {[](Settings& s) { s.topicPrefix = "$SYS"; }, "field topicPrefix: \"$SYS\" is not possible"},
      {[](Settings& s) { s.discoveryPrefix = "a/+"; }, "field discoveryPrefix: \"a/+\" is not possible"},
      {[](Settings& s) { s.broker.protocol = "4"; }, "field broker.protocol: \"4\" is not possible, one of 5, 3.1.1"},
      {[](Settings& s) { s.broker.passwordFile = "/p"; }, "field broker.user: empty beside broker.passwordFile"},
      {[](Settings& s) { s.tls.caFile = "/ca"; }, "field tls.enabled: false beside files for it"},
      {[](Settings& s) {
         s.tls.enabled = true;
         s.tls.keyFile = "/k";
       },
       "field tls.certificateFile: empty beside tls.keyFile"},
  };
  for (const auto& c : cases) {
    Settings settings;
    settings.broker.host = "broker";
    settings.unit = "car-7";
    CompleteSettings(settings);
    EXPECT_EQ(settings.broker.clientId, "tavi-mqtt-car-7");
    c.change(settings);
    const std::string problem = CheckSettings(settings);
    EXPECT_THAT(problem, StartsWith(c.expected));
    EXPECT_EQ(problem.empty(), c.expected.empty()) << problem;
    EXPECT_EQ(problem.find('\n'), std::string::npos);
  }
}

class MqttSecretsTest : public Tavi::Testing::TempDirTest {};

// Catches a password that others may read, or that has its line's end in it.
TEST_F(MqttSecretsTest, AreReadWhereTheyAreNobodyElses) {
  Settings settings;
  settings.broker.passwordFile = m_dir + "secret";
  std::string password;
  std::string problem;
  EXPECT_FALSE(ReadSecrets(settings, password, problem));
  EXPECT_THAT(problem, StartsWith("field broker.passwordFile: \"" + m_dir + "secret\" cannot be read (No such file"));
  std::ofstream(m_dir + "secret") << "a b\r\nrest";
  chmod((m_dir + "secret").c_str(), 0640);
  EXPECT_FALSE(ReadSecrets(settings, password, problem));
  EXPECT_THAT(problem, testing::HasSubstr("has mode 0640, others may read it; 0600 is right"));
  chmod((m_dir + "secret").c_str(), 0600);
  EXPECT_TRUE(ReadSecrets(settings, password, problem)) << problem;
  EXPECT_EQ(password, "a b");
  std::ofstream(m_dir + "secret") << "\n";
  EXPECT_FALSE(ReadSecrets(settings, password, problem));
  EXPECT_THAT(problem, testing::HasSubstr("has no password in its first line"));
}

TEST(MqttSettings, TheDocumentHasTheTableOfFields) {
  EXPECT_THAT(Tavi::Testing::ReadFile(MQTT_DOCUMENT), testing::HasSubstr(FormatFieldTable()));
}

}  // namespace
