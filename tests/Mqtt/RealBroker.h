// A real broker on a port of its own, and somebody who listens there.
#pragma once

#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Ksystem/FileUtils/UniqueFd.h"
#include "Support/Fixtures.h"

namespace Tavi::Testing {

/// Ends with the object, whatever the test comes to.
class Child {
 public:
  ~Child() { End(SIGKILL); }
  /// Standard error is appended to the file.
  void Start(std::vector<std::string> words, const std::string& errors) {
    std::vector<char*> argv;
    for (auto& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 2, errors.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    posix_spawn_file_actions_adddup2(&actions, 2, 1);
    ASSERT_EQ(posix_spawn(&m_id, argv[0], &actions, nullptr, argv.data(), environ), 0) << argv[0];
    posix_spawn_file_actions_destroy(&actions);
  }
  void Signal(int signal) const {
    if (m_id > 0) kill(m_id, signal);
  }
  /// Its exit status, -1 when a signal ended it.
  int End(int signal) {
    Signal(signal);
    return Wait();
  }
  int Wait() {
    int status = -1;
    if (m_id > 0) waitpid(std::exchange(m_id, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  pid_t m_id = 0;
};

/// A port of the loopback that nobody has; what listens there until the object's end never answers.
class MutePort {
 public:
  MutePort() : m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    EXPECT_EQ(::bind(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(::getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    EXPECT_EQ(::listen(m_socket.Get(), 8), 0);
    m_port = ntohs(address.sin_port);
  }
  [[nodiscard]] int GetPort() const { return m_port; }

 private:
  Ksystem::FileUtils::UniqueFd m_socket;
  int m_port = 0;
};

/// Subscribes to everything, and again as soon as a broker that went is back.
class Listener {
 public:
  explicit Listener(int port) : m_client(mosquitto_new(nullptr, true, this)), m_port(port) {
    mosquitto_connect_callback_set(m_client,
                                   [](mosquitto* client, void*, int) { mosquitto_subscribe(client, nullptr, "#", 1); });
    mosquitto_subscribe_callback_set(m_client, [](mosquitto*, void* self, int, int, const int*) {
      ++static_cast<Listener*>(self)->m_subscriptions;
    });
    mosquitto_message_callback_set(m_client, [](mosquitto*, void* self, const mosquitto_message* message) {
      static_cast<Listener*>(self)->Take(*message);
    });
    m_thread = std::thread([this] { Listen(); });
  }
  ~Listener() {
    m_isEnding = true;
    m_thread.join();
    mosquitto_destroy(m_client);
  }
  /// How often it has begun to hear.
  [[nodiscard]] int GetSubscriptions() const { return m_subscriptions; }
  /// What came on the topic, in its order.
  std::vector<std::string> Get(const std::string& topic) {
    const std::lock_guard lock(m_mutex);
    return m_payloads[topic];
  }
  std::string GetLast(const std::string& topic) {
    const auto all = Get(topic);
    return all.empty() ? "" : all.back();
  }
  bool WaitFor(const std::string& topic, std::size_t count) {
    return WaitUntil([&] { return Get(topic).size() >= count; });
  }
  /// Topics, the bytes in all of which the broker handed out as retained when this began to hear.
  std::map<std::string, std::string> GetRetained() {
    const std::lock_guard lock(m_mutex);
    return m_retained;
  }

 private:
  void Listen() {
    mosquitto_connect(m_client, "127.0.0.1", m_port, 60);
    while (!m_isEnding) {
      if (mosquitto_loop(m_client, 20, 1) == MOSQ_ERR_SUCCESS) continue;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
      mosquitto_reconnect(m_client);
    }
  }
  void Take(const mosquitto_message& message) {
    const std::lock_guard lock(m_mutex);
    const std::string payload(static_cast<const char*>(message.payload), static_cast<std::size_t>(message.payloadlen));
    m_payloads[message.topic].push_back(payload);
    if (message.retain) m_retained[message.topic] = payload;
  }

  mosquitto* m_client;
  const int m_port;
  std::atomic<int> m_subscriptions{0};
  std::atomic<bool> m_isEnding{false};
  std::mutex m_mutex;
  std::map<std::string, std::vector<std::string>> m_payloads;
  std::map<std::string, std::string> m_retained;
  std::thread m_thread;
};

/// mosquitto with a configuration of the test's.
class RealBroker {
 public:
  explicit RealBroker(std::string dir) : m_dir(std::move(dir)), m_port(MutePort().GetPort()) {}

  /// Empty where there is none.
  static std::string FindProgram(const std::string& name) {
    for (const std::string directory : {BROKER_DIR "/usr/sbin/", BROKER_DIR "/usr/bin/", "/usr/sbin/", "/usr/bin/"}) {
      if (access((directory + name).c_str(), X_OK) == 0) return directory + name;
    }
    return {};
  }
  void Configure(const std::string& lines) { m_lines = lines; }
  void Start() {
    // Root's broker would leave for a user that cannot read the test's files.
    std::ofstream(m_dir + "broker.conf") << "listener " << m_port << " 127.0.0.1\nuser root\n" << m_lines;
    m_child.Start({FindProgram("mosquitto"), "-c", m_dir + "broker.conf"}, m_dir + "broker.log");
    ASSERT_TRUE(WaitUntil([&] { return CanConnect(); })) << ReadFile(m_dir + "broker.log");
  }
  void Kill() { m_child.End(SIGKILL); }
  void Reload() const { m_child.Signal(SIGHUP); }
  [[nodiscard]] int GetPort() const { return m_port; }

 private:
  [[nodiscard]] bool CanConnect() const {
    const Ksystem::FileUtils::UniqueFd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(m_port));
    return ::connect(client.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
  }

  const std::string m_dir;
  const int m_port;
  std::string m_lines = "allow_anonymous true\n";
  Child m_child;
};

}  // namespace Tavi::Testing
