// What of an event is not as it was asked for.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "EventStore/EventDescription.h"
#include "Recorder/Service/EventOrder.h"
#include "Tavi/PipelineCollect/PipelineCollectTypes.h"

namespace Tavi::Recorder {

/// Compares what was collected with what was asked for: streams that are not there, begin or end more than a second
/// off, stood still, or delivered less than 95 % of their rate, and pictures that could not be made. `expected`: what
/// the recorder has collectors for.
std::vector<EventStore::MissingPart> FindMissing(const EventOrder& order,
                                                 const std::set<PipelineCollect::PipelineCollectType>& expected,
                                                 const PipelineCollect::PipelineCollectOutput& output);

/// One sentence; empty when nothing is missing.
std::string DescribeMissing(const std::vector<EventStore::MissingPart>& missing,
                            const EventStore::CameraNames& cameraNames = {});

}  // namespace Tavi::Recorder
