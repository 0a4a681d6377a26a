// What is written down of an event that was interrupted.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "EventStore/RequestNotes.h"
#include "Tavi/Pipeline/PipelineConfig.h"
#include "Tavi/RecoveryCollect/RecoveryCollectTypes.h"

namespace Tavi::Recorder {

/// The name of what a process that died has left of the event `id`.
std::string BuildCrashName(const std::string& id);
/// The id of the event that was interrupted under that name. One that does not tell has an id all the same, always the
/// same one.
std::string GetInterruptedId(const std::string& name);

/// Takes the note of the request that `recovered` was to answer, which bears its id, out of `notes`. Empty when there
/// is none.
std::optional<EventStore::RequestNote> TakeNote(const RecoveryCollect::RecoveredEvent& recovered,
                                                std::vector<EventStore::RequestNote>& notes);

/// The event as far as its files, their companions and its request, which may be unknown, tell. A stream without a
/// companion has its place on the time line to about a second. Reads the files.
EventStore::EventDescription DescribeRecovered(const RecoveryCollect::RecoveredEvent& recovered,
                                               const std::optional<EventStore::RequestNote>& note,
                                               const Pipeline::PipelineConfig& config,
                                               const EventStore::CameraNames& cameraNames = {});

}  // namespace Tavi::Recorder
