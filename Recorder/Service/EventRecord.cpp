// What the recorder writes down of an event.
#include "Recorder/Service/EventRecord.h"

#include <chrono>
#include <memory>
#include <string_view>

#include "EventStore/EventName.h"
#include "Recorder/Version.h"
#include "Tavi/Gps/GPSDataPackage.h"
#include "Tavi/Gps/GpsData.h"
#include "Tavi/Gps/GpsPipelineElement.h"
#include "Tavi/GstUtil/GstPipelineCbElement.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/EntryTimes.h"

namespace Tavi::Recorder {
namespace {

using PipelineCollect::GetPipelineCollectTypeName;
using PipelineCollect::PipelineCollectType;

constexpr std::chrono::seconds FreshFix{5};
/// A camera's video that could not be made an MP4.
using PipelineCollect::StreamExtension;

EventStore::StreamWindow DescribeWindow(PipelineCollectType type, const PipelineCollect::CollectedWindow& window) {
  EventStore::StreamWindow stream;
  stream.type = GetPipelineCollectTypeName(type);
  stream.entries = window.entries;
  stream.rate = static_cast<double>(window.fps);
  stream.fromSeconds = window.fromSeconds;
  stream.toSeconds = window.toSeconds;
  if (window.firstTimestampNs) stream.firstTimestampNs = static_cast<std::int64_t>(*window.firstTimestampNs);
  if (window.lastTimestampNs) stream.lastTimestampNs = static_cast<std::int64_t>(*window.lastTimestampNs);
  return stream;
}

}  // namespace

EventStore::EventDescription DescribeRequest(const EventOrder& order) {
  EventStore::EventDescription event;
  event.id = order.id;
  event.software = Version;
  event.label = order.label;
  event.trigger = order.trigger;
  event.timeMs = order.moment.systemMs;
  event.startSeconds = -order.beforeSeconds;
  event.durationSeconds = order.durationSeconds;
  event.withPreview = order.withPreview;
  event.accScaleG = order.accScaleG;
  event.position = order.position;
  event.cameraNames = order.cameraNames;
  return event;
}

EventStore::EventDescription DescribeEvent(const EventOrder& order,
                                           const PipelineCollect::PipelineCollectOutput& output,
                                           const std::string& manager, double waitedSeconds) {
  EventStore::EventDescription event = DescribeRequest(order);
  event.manager = manager;
  event.queuedSeconds = waitedSeconds;
  if (output.maxSpeed >= 0.0) event.maxSpeedKnots = output.maxSpeed;
  if (output.outputs.contains(PipelineCollectType::Acc)) event.maxG = output.maxG;
  if (output.outputs.contains(PipelineCollectType::Preview)) event.previewSeconds = output.previewSeconds;
  for (const auto& [type, window] : output.windows) event.streams.push_back(DescribeWindow(type, window));
  return event;
}

std::vector<EventStore::SourceFile> ListSources(const PipelineCollect::PipelineCollectOutput& output) {
  std::vector<EventStore::SourceFile> sources;
  for (const auto& [type, path] : output.outputs) {
    const std::string name = GetPipelineCollectTypeName(type);
    const bool isStream = path.ends_with(StreamExtension);
    sources.push_back({name + (isStream ? "Stream" : ""), path});
    const bool isSensor =
        type == PipelineCollectType::Gps || type == PipelineCollectType::Acc || type == PipelineCollectType::Other;
    const std::string times = path + std::string(PipelineCollect::TimesSuffix);
    // A clip has its times in itself.
    if ((isSensor || isStream) && PipelineCollect::CollectBase::IsPathAvailable(times)) {
      sources.push_back({name + "Times", times});
    }
  }
  if (!output.previewStill.empty()) sources.push_back({"PreviewStill", output.previewStill});
  return sources;
}

std::optional<Gps::ReceiverTime> ReadReceiverTime(const Pipeline::PipelineManager& pipeline) {
  const auto gps =
      std::dynamic_pointer_cast<Gps::GpsPipelineElement>(pipeline.ShareElement(Pipeline::PipelineType::Gps));
  return gps ? gps->ReadTime() : std::nullopt;
}

std::optional<EventStore::Position> ReadPosition(const Pipeline::PipelineManager& pipeline) {
  const auto ring = pipeline.ShareElement(Pipeline::PipelineType::Gps);
  const auto entry = ring ? std::dynamic_pointer_cast<GstUtil::GstPipelineCbElement>(ring->RetrieveCurrent()) : nullptr;
  if (!entry || !GstUtil::IsUsable(entry->buffer) || entry->GetAge() > FreshFix) return std::nullopt;
  Gps::GpsData fix{};
  if (gst_buffer_extract(entry->buffer, 0, &fix, sizeof(fix)) != sizeof(fix) || fix.isValidPackage != 1) {
    return std::nullopt;
  }
  EventStore::Position position{fix.latitude, fix.longitude, fix.speed, {}};
  if (const auto utc = Gps::GPSDataPackage::GetUtc(fix)) {
    const std::string time = EventStore::FormatTime(*utc * 1000);
    position.fixTime = time.substr(0, time.find('.')) + "Z";
  }
  return position;
}

}  // namespace Tavi::Recorder
