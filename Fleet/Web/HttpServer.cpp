// The HTTP server on libmicrohttpd.
#include "Fleet/Web/HttpServer.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <microhttpd.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstring>
#include <exception>
#include <vector>

#include "EventStore/Storage.h"
#include "Fleet/Web/ConnectionWatch.h"

namespace Tavi::Web {
namespace {

/// Of a connection's thread: what is deepest is reading a description.
constexpr std::size_t ThreadStackBytes = 512 * 1024;
constexpr std::size_t BlockBytes = 64 * 1024;

/// One request while it comes in; the library keeps it for us.
struct Incoming {
  Request request;
  bool isTooLarge = false;
};

MHD_Result TakeHeader(void* headers, MHD_ValueKind, const char* name, const char* value) {
  auto& values = *static_cast<decltype(Request::headers)*>(headers);
  values.try_emplace(ToLower(name), value == nullptr ? "" : value);
  return MHD_YES;
}

MHD_Result TakeQuery(void* query, MHD_ValueKind, const char* name, const char* value) {
  auto& values = *static_cast<decltype(Request::query)*>(query);
  values.insert_or_assign(name, value == nullptr ? "" : value);
  return MHD_YES;
}

ssize_t ReadBody(void* source, uint64_t, char* buffer, size_t size) noexcept {
  try {
    const auto got = static_cast<BodySource*>(source)->Read(buffer, size);
    if (!got) return MHD_CONTENT_READER_END_WITH_ERROR;
    return *got == 0 ? MHD_CONTENT_READER_END_OF_STREAM : static_cast<ssize_t>(*got);
  } catch (const std::exception& error) {
    EventStore::LogWarning(fmt::format("an answer was cut off: {}", error.what()));
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
}

void EndBody(void* source) noexcept {
  delete static_cast<BodySource*>(source);
}

MHD_Response* Create(Response& response) {
  if (response.stream) {
    auto* made =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, BlockBytes, ReadBody, response.stream.get(), EndBody);
    if (made != nullptr) static_cast<void>(response.stream.release());
    return made;
  }
  if (response.file) {
    // The library closes it.
    auto file = std::move(response.file->file);
    const int own = ::fcntl(file.Get(), F_DUPFD_CLOEXEC, 0);
    auto* made = MHD_create_response_from_fd_at_offset64(response.file->size, own, response.file->offset);
    if (made == nullptr && own >= 0) ::close(own);
    return made;
  }
  return MHD_create_response_from_buffer(response.body.size(), response.body.data(), MHD_RESPMEM_MUST_COPY);
}

MHD_Result Queue(MHD_Connection* connection, Response response) {
  MHD_Response* made = Create(response);
  if (made == nullptr) return MHD_NO;
  for (const auto& [name, value] : response.headers) {
    MHD_add_response_header(made, name.c_str(), ToHeaderText(value).c_str());
  }
  const auto queued = MHD_queue_response(connection, static_cast<unsigned int>(response.status), made);
  MHD_destroy_response(made);
  return queued;
}

int GetSocket(MHD_Connection* connection) {
  const auto* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD);
  return info == nullptr ? -1 : info->connect_fd;
}

/// What is wrong with the body that the head announces; empty when it may come.
std::optional<Response> CheckHead(const Request& request, std::size_t mostBytes) {
  if (!request.GetHeader("transfer-encoding").empty()) return Refuse(411, "give the body's length");
  const auto length = request.GetHeader("content-length");
  std::uint64_t bytes = 0;
  std::from_chars(length.data(), length.data() + length.size(), bytes);
  if (bytes <= mostBytes) return std::nullopt;
  return Refuse(413, fmt::format("the request's body has {} bytes; {} at most are right", bytes, mostBytes));
}

void Complain(void*, const char*, va_list) {
  // Of clients that send nonsense or leave, as often as they like.
}

bool ParseAddress(const HttpSettings& settings, sockaddr_storage& storage) {
  auto& four = reinterpret_cast<sockaddr_in&>(storage);
  auto& six = reinterpret_cast<sockaddr_in6&>(storage);
  if (::inet_pton(AF_INET, settings.address.c_str(), &four.sin_addr) == 1) {
    four.sin_family = AF_INET;
    four.sin_port = htons(static_cast<std::uint16_t>(settings.port));
    return true;
  }
  if (::inet_pton(AF_INET6, settings.address.c_str(), &six.sin6_addr) != 1) return false;
  six.sin6_family = AF_INET6;
  six.sin6_port = htons(static_cast<std::uint16_t>(settings.port));
  return true;
}

}  // namespace

/// What the library calls.
struct HttpServer::Calls {
  static Incoming* Begin(HttpServer& server, MHD_Connection* connection, const char* url, const char* method) {
    auto incoming = std::make_unique<Incoming>();
    incoming->request.method = method;
    incoming->request.path = url;
    incoming->request.isEncrypted = server.m_isEncrypted;
    MHD_get_connection_values(connection, MHD_HEADER_KIND, TakeHeader, &incoming->request.headers);
    MHD_get_connection_values(connection, MHD_GET_ARGUMENT_KIND, TakeQuery, &incoming->request.query);
    return incoming.release();
  }

  static Response Answer(const HttpServer& server, const Request& request) {
    try {
      return server.m_handler(request);
    } catch (const std::exception& error) {
      EventStore::LogWarning(fmt::format("{} {} failed: {}", request.method, ToHeaderText(request.path), error.what()));
      return Refuse(500, "the console failed at this; its log says how");
    }
  }

  static MHD_Result Take(void* self, MHD_Connection* connection, const char* url, const char* method, const char*,
                         const char* upload, size_t* uploadSize, void** kept) noexcept {
    try {
      auto& server = *static_cast<HttpServer*>(self);
      if (*kept == nullptr) {
        auto* incoming = Begin(server, connection, url, method);
        *kept = incoming;
        auto refusal = CheckHead(incoming->request, server.m_limits.bodyBytes);
        return refusal ? Queue(connection, std::move(*refusal)) : MHD_YES;
      }
      Request& request = static_cast<Incoming*>(*kept)->request;
      if (*uploadSize != 0) {
        request.body.append(upload, *uploadSize);
        *uploadSize = 0;
        return request.body.size() <= server.m_limits.bodyBytes ? MHD_YES : MHD_NO;
      }
      server.m_watch->NoteRequest(GetSocket(connection));
      return Queue(connection, Answer(server, request));
    } catch (const std::exception&) {
      return MHD_NO;
    }
  }

  static void End(void* self, MHD_Connection* connection, void** kept, MHD_RequestTerminationCode why) noexcept {
    delete static_cast<Incoming*>(*kept);
    *kept = nullptr;
    if (why == MHD_REQUEST_TERMINATED_COMPLETED_OK) {
      static_cast<HttpServer*>(self)->m_watch->NoteAnswer(GetSocket(connection));
    }
  }

  static void Connect(void* self, MHD_Connection* connection, void**, MHD_ConnectionNotificationCode what) noexcept {
    auto& watch = *static_cast<HttpServer*>(self)->m_watch;
    if (what == MHD_CONNECTION_NOTIFY_STARTED) {
      watch.Add(GetSocket(connection));
    } else {
      watch.Remove(GetSocket(connection));
    }
  }
};

HttpServer::HttpServer(Handler handler, HttpLimits limits)
    : m_handler(std::move(handler)),
      m_limits(limits),
      m_watch(std::make_unique<ConnectionWatch>(std::chrono::seconds(limits.requestSeconds))) {}

HttpServer::~HttpServer() {
  Stop();
}

bool HttpServer::Start(const HttpSettings& settings, std::string& problem) {
  sockaddr_storage address{};
  if (!ParseAddress(settings, address)) {
    problem = fmt::format("\"{}\" is no address to listen at", settings.address);
    return false;
  }
  m_isEncrypted = !settings.certificate.empty();
  unsigned int flags =
      MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL | MHD_USE_ERROR_LOG;
  if (address.ss_family == AF_INET6) flags |= MHD_USE_IPv6;
  std::vector<MHD_OptionItem> options;
  const auto add = [&options](MHD_OPTION option, std::size_t value, const void* pointer = nullptr) {
    options.push_back({option, static_cast<intptr_t>(value), const_cast<void*>(pointer)});
  };
  if (m_isEncrypted) {
    flags |= MHD_USE_TLS;
    add(MHD_OPTION_HTTPS_MEM_CERT, 0, settings.certificate.c_str());
    add(MHD_OPTION_HTTPS_MEM_KEY, 0, settings.key.c_str());
    add(MHD_OPTION_HTTPS_PRIORITIES, 0, "SECURE128:-VERS-ALL:+VERS-TLS1.2:+VERS-TLS1.3");
  }
  add(MHD_OPTION_SOCK_ADDR, 0, &address);
  add(MHD_OPTION_CONNECTION_LIMIT, m_limits.connections);
  if (m_limits.connectionsOfOne != 0) add(MHD_OPTION_PER_IP_CONNECTION_LIMIT, m_limits.connectionsOfOne);
  add(MHD_OPTION_CONNECTION_TIMEOUT, m_limits.idleSeconds);
  add(MHD_OPTION_CONNECTION_MEMORY_LIMIT, m_limits.headBytes);
  add(MHD_OPTION_THREAD_STACK_SIZE, ThreadStackBytes);
  add(MHD_OPTION_STRICT_FOR_CLIENT, 1);
  add(MHD_OPTION_END, 0);
  m_watch->Start();
  errno = 0;
  m_daemon = MHD_start_daemon(flags, 0, nullptr, nullptr, &Calls::Take, this, MHD_OPTION_EXTERNAL_LOGGER, &Complain,
                              nullptr, MHD_OPTION_NOTIFY_COMPLETED, &Calls::End, this, MHD_OPTION_NOTIFY_CONNECTION,
                              &Calls::Connect, this, MHD_OPTION_ARRAY, options.data(), MHD_OPTION_END);
  if (m_daemon == nullptr) {
    const std::string reason = errno != 0 ? std::strerror(errno) : "the certificate or its key is none";
    problem = fmt::format("cannot listen at {} port {}: {}", settings.address, settings.port, reason);
    return false;
  }
  const auto* info = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT);
  m_port = info == nullptr ? settings.port : info->port;
  return true;
}

void HttpServer::Stop() {
  if (m_daemon != nullptr) MHD_stop_daemon(m_daemon);
  m_daemon = nullptr;
  m_watch->Stop();
}

}  // namespace Tavi::Web
