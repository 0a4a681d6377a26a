// The cameras with their sound over RTSP.
#include "Fleet/Web/Rtsp/RtspServer.h"

#include <fmt/format.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <array>
#include <string_view>
#include <utility>

#include "Fleet/Web/Live/LiveHub.h"
#include "Fleet/Web/Rtsp/CameraFactory.h"
#include "Fleet/Web/Rtsp/Credentials.h"
#include "Kbase/Interfaces/IThread.h"
#include "Kbase/Klog/Logger.h"

namespace Tavi::Web {
namespace {

constexpr const char* Tag = "Rtsp";
constexpr const char* Role = "viewer";
constexpr unsigned MostSessions = 16;
/// One that waits for a camera must not hold up the others.
constexpr int MostThreads = 64;
/// Of a client that does not say that it is still there.
constexpr unsigned CleanUpSeconds = 2;
constexpr unsigned AskNamesSeconds = 5;
constexpr std::chrono::milliseconds NamesWithin{1000};

constexpr std::array<LiveStream, 2> Cameras{LiveStream::Camera0, LiveStream::Camera1};
constexpr std::array<const char*, 2> FixedPaths{"/camera0", "/camera1"};

template <typename T>
struct Unref {
  void operator()(T* object) const { g_object_unref(object); }
};
template <typename T>
using GObjectPtr = std::unique_ptr<T, Unref<T>>;

/// The kernel closes the connection, also while the client's window is shut (tcp(7)).
void DropWhenStalled(GstRTSPServer* /*server*/, GstRTSPClient* client, gpointer stalledMs) {
  GstRTSPConnection* connection = gst_rtsp_client_get_connection(client);
  GSocket* socket = connection != nullptr ? gst_rtsp_connection_get_write_socket(connection) : nullptr;
  GError* error = nullptr;
  if (socket == nullptr ||
      g_socket_set_option(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, GPOINTER_TO_INT(stalledMs), &error))
    return;
  Kbase::Klog::Logger::GetInstance().Warning(Tag, std::string("a stalled client will stay: ") + error->message);
  g_error_free(error);
}

/// "Front Left" as "/front-left"; empty when nothing of it can stand in an address.
std::string BuildPath(std::string_view name) {
  std::string path;
  for (const char c : name) {
    const char lower = g_ascii_tolower(c);
    const bool isPlain = g_ascii_isalnum(lower) != 0;
    if (isPlain) {
      path += lower;
    } else if (!path.empty() && path.back() != '-') {
      path += '-';
    }
  }
  while (!path.empty() && path.back() == '-') path.pop_back();
  return path.empty() ? path : "/" + path;
}

}  // namespace

/// Everything happens on the thread but Start and the end.
class RtspServerThread final : public RtspServer, public Kbase::Interfaces::IThread {
 public:
  explicit RtspServerThread(LiveHub& hub)
      : IThread("RTSP"),
        m_hub(hub),
        m_access(std::make_shared<HubAccess>(hub)),
        m_context(g_main_context_new()),
        m_server(gst_rtsp_server_new()) {}
  ~RtspServerThread() override;

  bool Open(const RtspSettings& settings, std::string& problem);
  [[nodiscard]] int GetPort() const override { return gst_rtsp_server_get_bound_port(m_server.get()); }
  [[nodiscard]] std::size_t CountClients() const override;

 private:
  void Run() override;
  void Stopping() override { g_main_context_wakeup(m_context); }

  bool UseCredentials(const std::string& path, std::string& problem);
  void AddCamera(std::size_t index);
  void Mount(std::size_t index, const std::string& path);
  void AddTimer(unsigned seconds, GSourceFunc function);
  static gboolean CleanUp(gpointer self);
  static gboolean AskNames(gpointer self);

  LiveHub& m_hub;
  const std::shared_ptr<HubAccess> m_access;
  GMainContext* const m_context;
  const GObjectPtr<GstRTSPServer> m_server;
  std::array<GObjectPtr<GstRTSPMediaFactory>, 2> m_factories;
  bool m_hasCredentials = false;
};

RtspServerThread::~RtspServerThread() {
  Stop();
  m_access->Close();
  const auto leave = [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; };
  gst_rtsp_server_client_filter(m_server.get(), leave, nullptr);
  const GObjectPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(m_server.get()));
  const auto end = [](GstRTSPSessionPool*, GstRTSPSession*, gpointer) { return GST_RTSP_FILTER_REMOVE; };
  gst_rtsp_session_pool_filter(sessions.get(), end, nullptr);
  g_main_context_unref(m_context);
}

bool RtspServerThread::Open(const RtspSettings& settings, std::string& problem) {
  problem = CheckRtspSettings(settings, "rtsp.");
  if (!problem.empty()) return false;
  if (!settings.credentialsFile.empty() && !UseCredentials(settings.credentialsFile, problem)) return false;
  gst_rtsp_server_set_address(m_server.get(), settings.address.c_str());
  gst_rtsp_server_set_service(m_server.get(), std::to_string(settings.port).c_str());
  const GObjectPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(m_server.get()));
  gst_rtsp_session_pool_set_max_sessions(sessions.get(), MostSessions);
  const GObjectPtr<GstRTSPThreadPool> threads(gst_rtsp_server_get_thread_pool(m_server.get()));
  gst_rtsp_thread_pool_set_max_threads(threads.get(), MostThreads);
  for (std::size_t i = 0; i < Cameras.size(); ++i) AddCamera(i);
  g_signal_connect(m_server.get(), "client-connected", G_CALLBACK(DropWhenStalled),
                   GINT_TO_POINTER(settings.stalledMs));
  GError* error = nullptr;
  GSource* source = gst_rtsp_server_create_source(m_server.get(), nullptr, &error);
  if (source == nullptr) {
    problem = fmt::format("rtsp.port: cannot listen at {} port {}: {}", settings.address, settings.port,
                          error != nullptr ? error->message : "for an unknown reason");
    g_clear_error(&error);
    return false;
  }
  g_source_attach(source, m_context);
  g_source_unref(source);
  AddTimer(CleanUpSeconds, CleanUp);
  if (AskNames(this) == G_SOURCE_CONTINUE) AddTimer(AskNamesSeconds, AskNames);
  return IThread::Start();
}

bool RtspServerThread::UseCredentials(const std::string& path, std::string& problem) {
  const auto credentials = ReadCredentials(path, problem);
  if (!credentials) return false;
  const GObjectPtr<GstRTSPAuth> auth(gst_rtsp_auth_new());
  // Not "basic", which sends the password itself.
  gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_DIGEST);
  GstRTSPToken* token = gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, Role, nullptr);
  gst_rtsp_auth_add_digest(auth.get(), credentials->user.c_str(), credentials->password.c_str(), token);
  gst_rtsp_token_unref(token);
  gst_rtsp_server_set_auth(m_server.get(), auth.get());
  m_hasCredentials = true;
  return true;
}

void RtspServerThread::AddCamera(std::size_t index) {
  m_factories[index].reset(MakeCameraFactory(m_access, Cameras[index]));
  if (m_hasCredentials) {
    gst_rtsp_media_factory_add_role(m_factories[index].get(), Role, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS, G_TYPE_BOOLEAN,
                                    TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT, G_TYPE_BOOLEAN, TRUE, nullptr);
  }
  Mount(index, FixedPaths[index]);
}

void RtspServerThread::Mount(std::size_t index, const std::string& path) {
  const GObjectPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(m_server.get()));
  auto* const factory = m_factories[index].get();
  gst_rtsp_mount_points_add_factory(mounts.get(), path.c_str(), GST_RTSP_MEDIA_FACTORY(g_object_ref(factory)));
}

void RtspServerThread::AddTimer(unsigned seconds, GSourceFunc function) {
  GSource* timer = g_timeout_source_new_seconds(seconds);
  g_source_set_callback(timer, function, this, nullptr);
  g_source_attach(timer, m_context);
  g_source_unref(timer);
}

std::size_t RtspServerThread::CountClients() const {
  std::size_t count = 0;
  const auto look = [](GstRTSPServer*, GstRTSPClient*, gpointer counter) {
    ++*static_cast<std::size_t*>(counter);
    return GST_RTSP_FILTER_KEEP;
  };
  gst_rtsp_server_client_filter(m_server.get(), look, &count);
  return count;
}

void RtspServerThread::Run() {
  g_main_context_iteration(m_context, TRUE);
}

gboolean RtspServerThread::CleanUp(gpointer self) {
  const auto& server = static_cast<RtspServerThread*>(self)->m_server;
  const GObjectPtr<GstRTSPSessionPool> sessions(gst_rtsp_server_get_session_pool(server.get()));
  gst_rtsp_session_pool_cleanup(sessions.get());
  return G_SOURCE_CONTINUE;
}

/// Until the recorder has told them; its settings do not change while it runs.
gboolean RtspServerThread::AskNames(gpointer self) {
  auto& server = *static_cast<RtspServerThread*>(self);
  std::array<std::string, 2> names;
  std::string problem;
  if (!server.m_hub.AskCameraNames(names, NamesWithin, problem)) return G_SOURCE_CONTINUE;
  for (std::size_t i = 0; i < names.size(); ++i) {
    const std::string path = BuildPath(names[i]);
    const bool isTaken = path == FixedPaths[0] || path == FixedPaths[1] || (i == 1 && path == BuildPath(names[0]));
    if (path.empty() || isTaken) continue;
    server.Mount(i, path);
    Kbase::Klog::Logger::GetInstance().Info(Tag, fmt::format("{} is {}", path, FixedPaths[i]));
  }
  return G_SOURCE_REMOVE;
}

std::unique_ptr<RtspServer> RtspServer::Start(const RtspSettings& settings, LiveHub& hub, std::string& problem) {
  GError* error = nullptr;
  if (gst_init_check(nullptr, nullptr, &error) == FALSE) {
    problem = std::string("rtsp.enabled: GStreamer does not start: ") + error->message;
    g_error_free(error);
    return nullptr;
  }
  auto server = std::make_unique<RtspServerThread>(hub);
  return server->Open(settings, problem) ? std::move(server) : nullptr;
}

}  // namespace Tavi::Web
