// The recorder as a service: what it answers on the control socket.
#include "Recorder/Service/Service.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <string_view>

#include "EventStore/EventName.h"
#include "EventStore/LaterLabel.h"
#include "Recorder/Health/HealthReport.h"
#include "Recorder/Service/MissingParts.h"
#include "Recorder/Service/SettingsReport.h"
#include "Recorder/Service/UploadReport.h"
#include "Recorder/Version.h"
#include "Tavi/GstUtil/Log.h"

namespace Tavi::Recorder {
namespace {

using Json = nlohmann::ordered_json;
using nlohmann::ordered_json;

/// What one reply has room for; the newest are the ones that are looked for.
constexpr std::size_t MaxListed = 2000;

void AddTime(const EventStore::EventTime& time, ordered_json& fields) {
  fields["time"] = EventStore::FormatTime(time.timeMs);
  fields["timeSource"] = time.source;
  fields["systemAheadSeconds"] =
      time.systemAheadSeconds ? ordered_json(*time.systemAheadSeconds) : ordered_json(nullptr);
}

/// `ok` stands for all that was asked for; what is saved but not whole says so.
ordered_json Describe(const EventResult& result, const EventStore::CameraNames& cameraNames) {
  ordered_json fields;
  fields["ok"] = result.isSaved && result.missing.empty();
  fields["event"] = result.id;
  fields["saved"] = result.isSaved;
  if (result.time) AddTime(*result.time, fields);
  if (result.isSaved) {
    fields["directory"] = result.directory;
    fields["files"] = result.files;
    fields["missing"] = ordered_json::array();
    for (const auto& part : result.missing) {
      fields["missing"].push_back({{"type", part.type}, {"seconds", part.seconds}, {"reason", part.reason}});
    }
    if (!result.missing.empty()) fields["error"] = DescribeMissing(result.missing, cameraNames);
  } else {
    fields["waits"] = result.isWaiting;
    fields["error"] = result.isWaiting
                          ? "event " + result.id + " waits and is saved as soon as it can be: " + result.problem
                          : result.problem;
  }
  return fields;
}

constexpr std::array<std::string_view, 7> PlainCommands{Command::Settings, Command::Status,   Command::Metrics,
                                                        Command::Events,   Command::Identity, Command::PowerFail,
                                                        Command::Stop};

}  // namespace

void Service::Handle(const Json& request, Reply reply) {
  const std::string command = request.at("command");
  std::string problem;
  if (std::ranges::find(PlainCommands, command) != PlainCommands.end() && !CheckPlainRequest(request, problem)) {
    reply.Refuse(problem);
  } else if (command == Command::Status) {
    reply(DescribeStatus());
  } else if (command == Command::Metrics) {
    reply({{"text", WriteMetrics()}});
  } else if (command == Command::Settings) {
    // Asking for groups may wait for the network.
    m_disk.Post([this, reply] { reply(DescribeSettings(m_settings, ReadHealth(), m_archive.Describe())); });
  } else if (command == Command::Event) {
    HandleEvent(request, reply);
  } else if (command == Command::Ignition) {
    HandleIgnition(request, reply);
  } else if (command == Command::Protect) {
    HandleProtect(request, reply);
  } else if (command == Command::Remove) {
    HandleRemove(request, reply);
  } else if (command == Command::Label) {
    HandleLabel(request, reply);
  } else if (command == Command::Live) {
    HandleLive(request, reply);
  } else if (command == Command::Events) {
    m_disk.Post([this, reply] { ListEvents(reply); });
  } else if (command == Command::Identity) {
    m_disk.Post([this, reply] {
      const auto identity = m_archive.DescribeIdentity();
      identity.contains("error") ? reply.Refuse(identity["error"]) : reply(identity);
    });
  } else if (command == Command::PowerFail) {
    reply(ordered_json::object());
    PowerFail("power fails");
  } else if (command == Command::Stop) {
    reply(ordered_json::object());
    Stop();
  } else {
    reply.Refuse("command: \"" + command + "\" is none; give status, event, ignition, power-fail, events, protect, " +
                 "remove, label, live, metrics, identity, settings or stop");
  }
}

void Service::HandleEvent(const Json& request, const Reply& reply) {
  std::string problem;
  const auto wanted = ParseEventRequest(request, problem);
  if (!wanted) {
    reply.Refuse(problem);
    return;
  }
  EventOrder order = MakeOrder();
  order.label = wanted->label;
  order.beforeSeconds = wanted->beforeSeconds.value_or(order.beforeSeconds);
  order.durationSeconds = wanted->durationSeconds.value_or(order.durationSeconds);
  order.withPreview = wanted->preview.value_or(order.withPreview);
  order.keep = wanted->keep;
  if (wanted->wait)
    order.done = [this, reply](const EventResult& result) { reply(Describe(result, m_settings.cameraNames)); };
  const std::string id = order.id;
  const Moment moment = order.moment;
  problem = Order(std::move(order));
  if (!problem.empty()) {
    reply.Refuse(problem);
  } else if (!wanted->wait) {
    ordered_json fields{{"event", id}, {"waiting", m_queue.Read().waiting}};
    AddTime(m_timeOfDay.Tell(moment), fields);
    reply(fields);
  }
}

void Service::HandleIgnition(const Json& request, const Reply& reply) {
  std::string problem;
  const auto wanted = ParseIgnitionRequest(request, problem);
  if (!wanted) {
    reply.Refuse(problem);
    return;
  }
  Post([this, on = wanted->on, reply] {
    if (on) {
      m_pipeline->RunIgnitionStart();
    } else {
      m_pipeline->RunIgnitionOff();
    }
    m_ignition = on;
    Log::Info(std::string("the ignition is ") + (on ? "on" : "off"));
    reply({{"ignition", on ? "on" : "off"}});
  });
}

void Service::HandleProtect(const Json& request, const Reply& reply) {
  std::string problem;
  const auto wanted = ParseProtectRequest(request, problem);
  if (!wanted) {
    reply.Refuse(problem);
    return;
  }
  m_disk.Post([this, wanted = *wanted, reply] {
    std::string why;
    if (m_archive.GetStore().SetProtected(wanted.event, wanted.isProtected, why)) {
      reply({{"event", wanted.event}, {"protected", wanted.isProtected}});
    } else {
      reply.Refuse(why);
    }
  });
}

void Service::HandleLabel(const Json& request, const Reply& reply) {
  std::string problem;
  const auto wanted = ParseLabelRequest(request, problem);
  if (!wanted) {
    reply.Refuse(problem);
    return;
  }
  m_disk.Post([this, wanted = *wanted, reply] {
    std::string why;
    if (EventStore::SetLaterLabel(m_settings.storage.eventsDir, wanted.event, wanted.label, why)) {
      if (m_pages) m_pages->Renew(wanted.event);
      reply({{"event", wanted.event}, {"label", wanted.label}});
    } else {
      reply.Refuse(why);
    }
  });
}

void Service::HandleRemove(const Json& request, const Reply& reply) {
  std::string problem;
  const auto wanted = ParseRemoveRequest(request, problem);
  if (!wanted) {
    reply.Refuse(problem);
    return;
  }
  // Not where requests are noted down: this may wait for an event that is being written.
  Post([this, wanted = *wanted, reply] {
    std::string why;
    if (m_archive.Remove(wanted.event, wanted.evenProtected, why)) {
      reply({{"event", wanted.event}, {"removed", true}});
      m_archive.Maintain();
    } else {
      reply.Refuse(why);
    }
  });
}

void Service::ListEvents(const Reply& reply) const {
  auto events = m_archive.GetStore().List();
  const std::size_t total = events.size();
  if (total > MaxListed) events.erase(events.begin(), events.end() - MaxListed);
  auto list = ordered_json::array();
  for (const auto& event : events) {
    ordered_json entry;
    entry["event"] = event.id;
    entry["directory"] = m_settings.storage.eventsDir + event.name;
    entry["bytes"] = event.bytes;
    entry["protected"] = event.isProtected;
    list.push_back(std::move(entry));
  }
  reply({{"total", total}, {"events", list}});
}

/// With the names that people have given the cameras, the previews' included.
std::vector<SourceHealth> Service::ReadHealth() const {
  using Pipeline::PipelineType;
  auto sources = m_health->GetHealth().Read();
  for (auto& source : sources) {
    if (source.type == PipelineType::Camera0 || source.type == PipelineType::Preview0) {
      source.name = m_settings.cameraNames[0];
    } else if (source.type == PipelineType::Camera1 || source.type == PipelineType::Preview1) {
      source.name = m_settings.cameraNames[1];
    }
  }
  return sources;
}

ordered_json Service::DescribeStatus() const {
  const std::chrono::duration<double> uptime = std::chrono::steady_clock::now() - m_startedAt;
  const auto queue = m_queue.Read();
  ordered_json status;
  status["software"] = Version;
  status["state"] = m_state.load();
  status["ignition"] = m_ignition ? "on" : "off";
  status["uptimeSeconds"] = uptime.count();
  status["running"] = queue.running;
  status["waiting"] = queue.waiting;
  status["refused"] = m_refused.load();
  status["heldBytes"] = queue.heldBytes;
  {
    const std::lock_guard lock(m_mutex);
    status["lastEvent"] = m_lastResult ? Describe(*m_lastResult, m_settings.cameraNames) : ordered_json(nullptr);
  }
  status["clock"] = DescribeClock(Moment::Now());
  status["storage"] = m_archive.Describe();
  const auto live = m_live->Read();
  status["live"] = {{"clients", live.clients}, {"dropped", live.dropped}};
  status["upload"] = ReadUploadReport(m_settings.uploadStatusFile);
  status["sources"] = ToJson(ReadHealth());
  return status;
}

ordered_json Service::DescribeClock(const Moment& now) const {
  ordered_json clock;
  AddTime(m_timeOfDay.Tell(now), clock);
  const auto last = m_timeOfDay.GetLastReading();
  clock["fixAgeSeconds"] =
      last ? ordered_json(std::chrono::duration<double>(now.steady - *last).count()) : ordered_json(nullptr);
  return clock;
}

}  // namespace Tavi::Recorder
