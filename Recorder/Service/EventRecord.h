// What the recorder writes down of an event.
#pragma once

#include <optional>
#include <vector>

#include "EventStore/EventDescription.h"
#include "EventStore/FileTransfer.h"
#include "Recorder/Service/EventOrder.h"
#include "Tavi/Gps/GstGpsPipelineElement.h"
#include "Tavi/Pipeline/PipelineManager.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::Recorder {

/// What is known of an event before it is collected; its time by the system's clock.
EventStore::EventDescription DescribeRequest(const EventOrder& order);
/// `manager`: as in EventDescription. `waitedSeconds`: from the event's moment to the start of its collect.
EventStore::EventDescription DescribeEvent(const EventOrder& order,
                                           const PipelineCollect::PipelineCollectOutput& output,
                                           const std::string& manager, double waitedSeconds);

/// Every file of the event, the preview's still and the companions of what does not tell its own times included.
std::vector<EventStore::SourceFile> ListSources(const PipelineCollect::PipelineCollectOutput& output);

/// The newest reading of the receiver's clock; empty without a valid fix. Thread-safe.
std::optional<Gps::ReceiverTime> ReadReceiverTime(const Pipeline::PipelineManager& pipeline);

/// The newest fix; empty when it is not valid or older than five seconds. Thread-safe.
std::optional<EventStore::Position> ReadPosition(const Pipeline::PipelineManager& pipeline);

}  // namespace Tavi::Recorder
