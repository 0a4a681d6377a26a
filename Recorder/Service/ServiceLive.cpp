// The recorder as a service: what it streams to those who watch.
#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <utility>

#include "Control/LiveProtocol.h"
#include "Recorder/Live/StreamList.h"
#include "Recorder/Service/Service.h"

namespace Tavi::Recorder {

/// The socket goes from the thread "CONTROL" to the thread "LIVE" when the reply is written.
void Service::HandleLive(const nlohmann::ordered_json& request, const Reply& reply) {
  std::string problem;
  const auto wanted = ParseLiveRequest(request, problem);
  if (!wanted) return reply.Refuse(problem);
  const auto streams = Live::ChooseStreams(m_settings.pipeline, wanted->streams, problem);
  if (!streams) return reply.Refuse(problem);
  if (IsEnding()) return reply.Refuse("the recorder is ending");
  const auto place = m_live->TakePlace();
  if (!place) return reply.Refuse(fmt::format("{} clients watch live already, and no more can", MaxLiveClients));
  const auto now = Moment::Now();
  nlohmann::ordered_json fields{{"streams", Live::DescribeStreams(m_settings, *streams)}};
  fields["steadyNs"] = std::chrono::nanoseconds(now.steady.time_since_epoch()).count();
  fields.update(DescribeClock(now));
  reply.HandOver(fields, [this, streams = *streams, place](Ksystem::FileUtils::UniqueFd socket) {
    m_live->Add(std::move(socket), streams, place);
  });
}

}  // namespace Tavi::Recorder
