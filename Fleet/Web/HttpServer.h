// The HTTP server: connections, their limits and time-outs, requests read whole, answers sent.
#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "Fleet/Web/Http.h"

struct MHD_Daemon;

namespace Tavi::Web {

class ConnectionWatch;

struct HttpSettings {
  /// IPv4 or IPv6 address.
  std::string address = "127.0.0.1";
  /// 0: one that is free.
  int port = 0;
  /// PEM texts; both or none.
  std::string certificate;
  std::string key;
};

/// What clients may take. A connection has a thread of its own, so that one that stalls holds up nobody else.
struct HttpLimits {
  unsigned int connections = 128;
  /// Of one address that is not this machine's own.
  unsigned int connectionsOfOne = 48;
  /// Request line and headers of one connection.
  std::size_t headBytes = 32 * 1024;
  std::size_t bodyBytes = 16 * 1024;
  /// Without a byte either way.
  unsigned int idleSeconds = 20;
  /// From a connection's beginning, or its last answer, to the end of the next request, however its bytes trickle.
  unsigned int requestSeconds = 20;
};

/// Owns the listening socket and a thread for each connection. `handler` is called on these, several at once, and must
/// be thread-safe; what it throws is answered with 500. Stop ends connections and waits for the threads: bodies that
/// wait must end when IsStopping.
class HttpServer {
 public:
  using Handler = std::function<Response(const Request&)>;

  explicit HttpServer(Handler handler, HttpLimits limits = {});
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// False, with one sentence in `problem`, when the address cannot be had or the certificate is none.
  [[nodiscard]] bool Start(const HttpSettings& settings, std::string& problem);
  void Stop();
  [[nodiscard]] int GetPort() const { return m_port; }

 private:
  struct Calls;
  friend struct Calls;

  const Handler m_handler;
  const HttpLimits m_limits;
  std::unique_ptr<ConnectionWatch> m_watch;
  MHD_Daemon* m_daemon = nullptr;
  bool m_isEncrypted = false;
  int m_port = 0;
};

}  // namespace Tavi::Web
