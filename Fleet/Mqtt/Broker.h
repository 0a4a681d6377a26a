// The connection to the broker.
#pragma once

#include <mosquitto.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Fleet/Mqtt/Settings.h"

namespace Tavi::Mqtt {

struct Message {
  std::string topic;
  std::string payload;
  /// 0: nobody says whether it came; 1: the broker acknowledges it.
  int qos = 0;
  /// The broker keeps it for who comes later.
  bool isRetained = false;
};

/// What the broker says of a message with qos 1.
struct Acknowledgement {
  int id = 0;
  /// Why it did not take the message; empty when it did.
  std::string refusal;
};

/// One client of the broker, made anew for each connection: what a broken one had not sent is dropped, and who owns the
/// message says it again. Thread-bound; everything happens within Turn. Names are resolved there, too, which may take
/// the resolver's time.
class Broker {
 public:
  enum class State { Apart, Connecting, Connected };
  enum class Sent { Yes, Apart, TooLarge };

  /// `settings` are borrowed.
  Broker(const Settings& settings, std::string password);
  ~Broker();

  /// Begins to connect. Turn does the rest; within half a minute it has come to an end.
  void Connect();
  /// Does what there is to do, for up to `nap`; returns earlier when something came. A signal cuts it short.
  State Turn(std::chrono::milliseconds nap);
  [[nodiscard]] State GetState() const { return m_state; }
  /// Why it is apart, in a few words; empty before the first try and after Leave.
  [[nodiscard]] const std::string& GetProblem() const { return m_problem; }

  /// Hands a message over; of one with qos 1 `id` is that of its acknowledgement, which comes if the connection lasts.
  Sent Publish(const Message& message, int& id);
  /// Those that came since the last call.
  std::vector<Acknowledgement> TakeAcknowledgements();

  /// Gives the connection up; the broker publishes the will.
  void Drop(const std::string& why);
  /// Says goodbye instead: the broker publishes no will.
  void Leave();

  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

 private:
  using Clock = std::chrono::steady_clock;
  struct Destroy {
    void operator()(mosquitto* client) const { mosquitto_destroy(client); }
  };

  bool Prepare();
  bool PrepareTls();
  bool Check(int result, const char* what);
  void End(int result);
  std::string Describe(int result);

  static void OnConnect(mosquitto*, void* self, int result, int flags, const mosquitto_property*);
  static void OnDisconnect(mosquitto*, void* self, int reason, const mosquitto_property*);
  static void OnPublish(mosquitto*, void* self, int id, int reason, const mosquitto_property*);
  static void OnLog(mosquitto*, void* self, int level, const char* text);

  const Settings& m_settings;
  const std::string m_password;
  std::unique_ptr<mosquitto, Destroy> m_client;
  State m_state = State::Apart;
  Clock::time_point m_deadline;
  std::string m_problem;
  /// What the broker itself gave as its reason, and what the library had to complain of.
  std::string m_refusal;
  std::string m_detail;
  std::vector<Acknowledgement> m_acknowledged;
};

/// "tavi/UNIT/" and the name.
std::string BuildTopic(const Settings& settings, const std::string& name);

inline constexpr const char* AvailabilityTopic = "availability";
inline constexpr const char* Online = "online";
inline constexpr const char* Offline = "offline";

}  // namespace Tavi::Mqtt
