// The connection to the broker.
#include "Fleet/Mqtt/Broker.h"

#include <fmt/format.h>
#include <poll.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Tavi::Mqtt {
namespace {

constexpr std::chrono::seconds ConnectTimeout{30};
/// Reason codes of MQTT 5 from here on are refusals.
constexpr int FirstRefusal = 0x80;
/// What Debian's OpenSSL trusts.
constexpr const char* SystemCertificates = "/etc/ssl/certs";

Broker& Get(void* self) {
  return *static_cast<Broker*>(self);
}

/// A key that wants a pass phrase is an error, no question on a terminal that nobody sits at.
int GiveNoPassPhrase(char*, int, int, void*) {
  return 0;
}

}  // namespace

std::string BuildTopic(const Settings& settings, const std::string& name) {
  return fmt::format("{}/{}/{}", settings.topicPrefix, settings.unit, name);
}

Broker::Broker(const Settings& settings, std::string password) : m_settings(settings), m_password(std::move(password)) {
  mosquitto_lib_init();
}

Broker::~Broker() {
  m_client.reset();
  mosquitto_lib_cleanup();
}

void Broker::Connect() {
  m_acknowledged.clear();
  m_refusal.clear();
  m_detail.clear();
  m_client.reset(mosquitto_new(m_settings.broker.clientId.c_str(), true, this));
  if (!m_client) {
    m_problem = "there is no memory for a client";
    return;
  }
  if (!Prepare()) return;
  m_state = State::Connecting;
  m_deadline = Clock::now() + ConnectTimeout;
  const auto& broker = m_settings.broker;
  const int result = mosquitto_connect_async(m_client.get(), broker.host.c_str(), broker.port, broker.keepAliveSeconds);
  if (result != MOSQ_ERR_SUCCESS) End(result);
}

bool Broker::Prepare() {
  mosquitto* client = m_client.get();
  mosquitto_connect_v5_callback_set(client, OnConnect);
  mosquitto_disconnect_v5_callback_set(client, OnDisconnect);
  mosquitto_publish_v5_callback_set(client, OnPublish);
  mosquitto_log_callback_set(client, OnLog);
  const bool is5 = m_settings.broker.protocol == "5";
  const int version = is5 ? MQTT_PROTOCOL_V5 : MQTT_PROTOCOL_V311;
  if (!Check(mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, version), "version of MQTT")) return false;
  if (!m_settings.broker.user.empty()) {
    const char* password = m_password.empty() ? nullptr : m_password.c_str();
    const int result = mosquitto_username_pw_set(client, m_settings.broker.user.c_str(), password);
    if (!Check(result, "user and password")) return false;
  }
  const std::string will = BuildTopic(m_settings, AvailabilityTopic);
  const auto size = static_cast<int>(std::strlen(Offline));
  if (!Check(mosquitto_will_set(client, will.c_str(), size, Offline, 1, true), "will")) return false;
  return !m_settings.tls.enabled || PrepareTls();
}

bool Broker::PrepareTls() {
  const auto& tls = m_settings.tls;
  const auto orNull = [](const std::string& text) { return text.empty() ? nullptr : text.c_str(); };
  const char* directory = tls.caFile.empty() ? SystemCertificates : nullptr;
  const int result = mosquitto_tls_set(m_client.get(), orNull(tls.caFile), directory, orNull(tls.certificateFile),
                                       orNull(tls.keyFile), GiveNoPassPhrase);
  return Check(result, "files for TLS");
}

bool Broker::Check(int result, const char* what) {
  if (result == MOSQ_ERR_SUCCESS) return true;
  m_problem = fmt::format("{}: {}", what, Describe(result));
  m_state = State::Apart;
  return false;
}

Broker::State Broker::Turn(std::chrono::milliseconds nap) {
  if (m_state == State::Apart) {
    ::poll(nullptr, 0, static_cast<int>(nap.count()));
    return m_state;
  }
  const int result = mosquitto_loop(m_client.get(), static_cast<int>(nap.count()), 1);
  const bool isInterrupted = result == MOSQ_ERR_ERRNO && errno == EINTR;
  if (result != MOSQ_ERR_SUCCESS && !isInterrupted) {
    End(result);
  } else if (m_state == State::Connecting && Clock::now() > m_deadline) {
    Drop("it does not answer");
  }
  return m_state;
}

Broker::Sent Broker::Publish(const Message& message, int& id) {
  if (m_state != State::Connected) return Sent::Apart;
  const int result =
      mosquitto_publish_v5(m_client.get(), &id, message.topic.c_str(), static_cast<int>(message.payload.size()),
                           message.payload.data(), message.qos, message.isRetained, nullptr);
  if (result == MOSQ_ERR_OVERSIZE_PACKET || result == MOSQ_ERR_PAYLOAD_SIZE) return Sent::TooLarge;
  if (result == MOSQ_ERR_SUCCESS) return Sent::Yes;
  End(result);
  return Sent::Apart;
}

std::vector<Acknowledgement> Broker::TakeAcknowledgements() {
  return std::exchange(m_acknowledged, {});
}

void Broker::Drop(const std::string& why) {
  // Its end without a goodbye closes the socket.
  m_client.reset();
  m_state = State::Apart;
  m_problem = why;
}

void Broker::Leave() {
  if (m_state == State::Connected) {
    mosquitto_disconnect_v5(m_client.get(), 0, nullptr);
    // What is written at once is all there is; without it the broker publishes the same as a will.
    mosquitto_loop(m_client.get(), 0, 1);
  }
  Drop("");
}

void Broker::End(int result) {
  Drop(!m_refusal.empty() ? m_refusal : Describe(result));
}

std::string Broker::Describe(int result) {
  std::string text = result == MOSQ_ERR_ERRNO ? std::strerror(errno) : mosquitto_strerror(result);
  if (text.ends_with('.')) text.pop_back();
  return m_detail.empty() ? text : fmt::format("{} ({})", text, m_detail);
}

void Broker::OnConnect(mosquitto*, void* self, int result, int, const mosquitto_property*) {
  Broker& broker = Get(self);
  if (result == 0) {
    broker.m_state = State::Connected;
    broker.m_problem.clear();
    return;
  }
  const bool is5 = broker.m_settings.broker.protocol == "5";
  broker.m_refusal =
      fmt::format("it refuses: {}", is5 ? mosquitto_reason_string(result) : mosquitto_connack_string(result));
}

void Broker::OnDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*) {
  Broker& broker = Get(self);
  if (reason >= FirstRefusal) broker.m_refusal = fmt::format("it says: {}", mosquitto_reason_string(reason));
}

void Broker::OnPublish(mosquitto*, void* self, int id, int reason, const mosquitto_property*) {
  Get(self).m_acknowledged.push_back({id, reason >= FirstRefusal ? mosquitto_reason_string(reason) : ""});
}

void Broker::OnLog(mosquitto*, void* self, int level, const char* text) {
  if (level == MOSQ_LOG_ERR) Get(self).m_detail = text;
}

}  // namespace Tavi::Mqtt
