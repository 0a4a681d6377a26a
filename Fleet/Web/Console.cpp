// What the console answers to each address.
#include "Fleet/Web/Console.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "Control/Protocol.h"
#include "Fleet/Web/Assets.h"
#include "Fleet/Web/EventFiles.h"
#include "Fleet/Web/EventPages.h"
#include "Fleet/Web/EventQuery.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Web {
namespace {

using namespace std::chrono_literals;
using Json = RecorderLink::Json;
namespace Command = Recorder::Command;

/// What changes something may wait for an event that is being written. A connection that is idle for longer is cut off,
/// its answer with it.
constexpr auto ChangePatience = 15000ms;
constexpr auto AskPatience = 5000ms;
constexpr auto RefreshPatience = 2000ms;

constexpr std::string_view PagePolicy =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; media-src 'self' blob:; "
    "connect-src 'self'; form-action 'none'; base-uri 'none'; frame-ancestors 'none'";
/// What is no page shall not become one, whatever it holds.
constexpr std::string_view ClosedPolicy = "default-src 'none'; frame-ancestors 'none'; sandbox";

constexpr std::array<std::pair<std::string_view, std::string_view>, 4> Pages{
    {{"/", "events.html"}, {"/live", "live.html"}, {"/settings", "settings.html"}, {"/login", "login.html"}}};

std::string_view FindPage(std::string_view path) {
  const auto page = std::ranges::find(Pages, path, &std::pair<std::string_view, std::string_view>::first);
  return page == Pages.end() ? std::string_view() : page->second;
}

/// Takes what is up to the next "/" away from `rest`.
std::string_view TakeLevel(std::string_view& rest) {
  const std::size_t end = std::min(rest.find('/'), rest.size());
  const auto level = rest.substr(0, end);
  rest.remove_prefix(std::min(end + 1, rest.size()));
  return level;
}

Area FindArea(const Request& request) {
  const std::string_view path = request.path;
  const bool isLogin = path == "/login" || path == "/api/login" || path == "/api/logout";
  if (isLogin || path.starts_with("/assets/")) return Area::Public;
  if (!FindPage(path).empty()) return Area::Page;
  return path.starts_with("/events/") && (path.ends_with('/') || path.find('/', 8) == std::string_view::npos)
             ? Area::Page
             : Area::Api;
}

Response RefuseAway(const std::string& problem) {
  return AnswerJson(Kbase::Json::Print({{"error", problem}, {"recorder", "away"}}), 503);
}

Response Forward(const RecorderLink::Answer& answer) {
  if (answer.isAway) return RefuseAway(answer.problem);
  return answer.isOk ? AnswerJson(answer.text) : Refuse(409, answer.problem);
}

Response RefuseMethod(std::string_view right) {
  auto refusal = Refuse(405, fmt::format("{} is right here", right));
  refusal.headers.emplace_back("Allow", right);
  return refusal;
}

/// The body as an object; an empty one for none.
std::optional<Json> ReadBody(const Request& request, std::string& problem) {
  if (request.body.empty()) return Json::object();
  auto json = Kbase::Json::Parse(request.body);
  if (json.is_object() && !json.contains("command") && !json.contains("event") && !json.contains("id")) return json;
  problem = "the body is no JSON object with the fields of this request";
  return std::nullopt;
}

void Secure(const Request& request, Response& response) {
  const auto has = [&response](std::string_view name) {
    return std::ranges::any_of(response.headers, [name](const auto& header) { return header.first == name; });
  };
  if (!has("Content-Security-Policy")) response.headers.emplace_back("Content-Security-Policy", ClosedPolicy);
  response.headers.emplace_back("X-Content-Type-Options", "nosniff");
  response.headers.emplace_back("Referrer-Policy", "no-referrer");
  response.headers.emplace_back("X-Frame-Options", "DENY");
  response.headers.emplace_back("Cross-Origin-Resource-Policy", "same-origin");
  response.headers.emplace_back("Cross-Origin-Opener-Policy", "same-origin");
  if (request.isEncrypted) response.headers.emplace_back("Strict-Transport-Security", "max-age=31536000");
}

}  // namespace

Console::Console(const Gate& gate, RecorderLink& recorder, EventIndex& index, LiveMaker makeLive)
    : m_gate(gate), m_recorder(recorder), m_index(index), m_makeLive(std::move(makeLive)) {}

Response Console::Handle(const Request& request) const {
  auto refusal = m_gate.Check(request, FindArea(request));
  Response response = refusal ? std::move(*refusal) : Answer(request);
  Secure(request, response);
  return response;
}

Response Console::Answer(const Request& request) const {
  constexpr std::string_view AssetPath = "/assets/";
  constexpr std::string_view EventPath = "/events/";
  constexpr std::string_view EventApi = "/api/events/";
  const std::string_view path = request.path;
  const bool isRead = request.method == "GET" || request.method == "HEAD";
  if (path.starts_with(EventApi)) return HandleEvent(request, path.substr(EventApi.size()));
  const bool isPost = path == "/api/login" || path == "/api/logout" || path == "/api/event";
  if (isPost && request.method != "POST") return RefuseMethod("POST");
  if (path == "/api/login") return m_gate.LogIn(request);
  if (path == "/api/logout") return m_gate.LogOut(request);
  if (path == "/api/event") return TakeEvent(request);
  if (!isRead) return RefuseMethod("GET");
  if (const auto page = FindPage(path); !page.empty()) return AnswerAsset(request, page);
  if (path.starts_with(AssetPath)) return AnswerAsset(request, path.substr(AssetPath.size()));
  if (path.starts_with(EventPath)) return ShowEvent(request, path.substr(EventPath.size()));
  if (path == "/api/events") return AnswerEvents(request);
  if (path == "/api/status") return AnswerStatus();
  if (path == "/api/settings") return AnswerSettings();
  if (path == "/api/live") return AnswerLive();
  return Refuse(404, "there is nothing at this address");
}

Response Console::AnswerAsset(const Request& request, std::string_view name) const {
  const Asset* asset = FindAsset(name);
  if (asset == nullptr) return Refuse(404, "there is nothing at this address");
  Response response;
  // As long as the program runs it does not change; the next one may be another.
  static const std::string tag = fmt::format("\"{:x}\"", std::chrono::system_clock::now().time_since_epoch().count());
  response.headers = {{"Content-Type", std::string(GetAssetType(name))},
                      {"Cache-Control", "no-cache"},
                      {"ETag", tag},
                      {"Content-Security-Policy", std::string(PagePolicy)}};
  response.status = request.GetHeader("if-none-match") == tag ? 304 : 200;
  if (response.status == 200) response.body = asset->text;
  return response;
}

Response Console::AnswerEvents(const Request& request) const {
  std::string problem;
  const auto query = ParseQuery(request, problem);
  if (!query) return Refuse(400, problem);
  const auto snapshot = m_index.Read();
  if (snapshot.directory.empty()) {
    const auto status = m_recorder.AskStatus();
    if (!status.isOk) return RefuseAway(status.problem);
  }
  return AnswerJson(AnswerQuery(*query, snapshot));
}

Response Console::AnswerStatus() const {
  return Forward(m_recorder.AskStatus());
}

Response Console::AnswerSettings() const {
  return Forward(m_recorder.Ask({{"command", Command::Settings}}, AskPatience));
}

Response Console::AnswerLive() const {
  std::string problem;
  auto stream = m_makeLive(problem);
  if (!stream) return Refuse(503, problem);
  Response response;
  response.headers = {{"Content-Type", "application/octet-stream"}, {"Cache-Control", "no-store"}};
  response.stream = std::move(stream);
  return response;
}

Response Console::TakeEvent(const Request& request) const {
  std::string problem;
  auto command = ReadBody(request, problem);
  if (!command) return Refuse(400, problem);
  // Waiting would keep the connection for as long as the event takes; the page asks for the state instead.
  if (command->contains("wait")) return Refuse(400, "wait: it is not for the console; leave it out");
  (*command)["command"] = Command::Event;
  return Forward(m_recorder.Ask(*command, AskPatience));
}

Response Console::Change(const Json& command) const {
  const auto answer = m_recorder.Ask(command, ChangePatience);
  // So that whoever asks for the list next sees it.
  if (answer.isOk) m_index.Refresh(RefreshPatience);
  return Forward(answer);
}

Response Console::HandleEvent(const Request& request, std::string_view rest) const {
  const std::string id(TakeLevel(rest));
  const std::string_view what = rest;
  if (!Recorder::IsEventId(id)) return Refuse(404, "there is no such event");
  const bool isChange = what == "protect" || what == "label";
  if (isChange || (what.empty() && request.method == "DELETE")) {
    if (isChange && request.method != "POST") return RefuseMethod("POST");
    std::string problem;
    auto command = ReadBody(request, problem);
    if (!command) return Refuse(400, problem);
    (*command)["command"] = isChange ? std::string(what) : std::string(Command::Remove);
    (*command)["event"] = id;
    return Change(*command);
  }
  if (request.method != "GET" && request.method != "HEAD") return RefuseMethod("GET");
  const auto event = m_index.Find(id);
  if (!event) return Refuse(404, "there is no such event");
  if (what == "archive") return Archive(*event);
  return what.empty() ? DescribeEvent(*event) : Refuse(404, "there is nothing at this address");
}

std::string Console::GetDirectory(const EventSummary& event) const {
  return m_index.Read().directory + "/" + event.entry.name;
}

Response Console::DescribeEvent(const EventSummary& event) const {
  std::string problem;
  const EventFiles files(m_index.Read().directory, event.entry.name, problem);
  const std::string description = files.IsValid() ? EventStore::FormatEvent(files.GetEvent()) : "null";
  return AnswerJson(fmt::format("{{\"summary\":{},\"event\":{}}}", event.json, description));
}

Response Console::Archive(const EventSummary& event) const {
  std::string problem;
  auto archive = BuildArchive(m_index.Read().directory, event.entry.name, problem);
  if (!archive) return Refuse(404, problem);
  Response response;
  response.headers = {{"Content-Type", "application/zip"},
                      {"Content-Disposition", fmt::format("attachment; filename=\"{}.zip\"", event.entry.name)},
                      {"Cache-Control", "no-store"}};
  response.stream = std::move(archive);
  return response;
}

Response Console::ShowEvent(const Request& request, std::string_view rest) const {
  const std::string id(TakeLevel(rest));
  const auto event = m_index.Find(id);
  if (!event) return Refuse(404, "there is no such event");
  Response response;
  if (!request.path.ends_with('/') && rest.empty()) {
    response.status = 303;
    response.headers = {{"Location", "/events/" + id + "/"}, {"Cache-Control", "no-store"}};
    return response;
  }
  std::string problem;
  if (rest.empty() || rest == "index.html") {
    auto page = BuildEventPage(GetDirectory(*event), problem);
    if (!page) return Refuse(404, problem);
    response.body = std::move(*page);
    response.headers = {{"Content-Type", "text/html; charset=utf-8"},
                        {"Cache-Control", "no-store"},
                        {"Content-Security-Policy", std::string(EventPagePolicy)}};
    return response;
  }
  const EventFiles files(m_index.Read().directory, event->entry.name, problem);
  if (!files.IsValid()) return Refuse(404, problem);
  const std::string name(rest);
  auto file = files.Open(name);
  if (!file) return Refuse(404, "the event has no such file");
  response = AnswerFile(request, std::move(*file), files.GetTag(name));
  if (response.status == 200 || response.status == 206) {
    response.headers.emplace_back("Content-Type", GetContentType(name));
  }
  return response;
}

}  // namespace Tavi::Web
