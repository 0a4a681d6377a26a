// An event that was asked for, and what became of it.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "EventStore/EventDescription.h"
#include "Recorder/Service/TimeOfDay.h"
#include "Tavi/EventCollect/HeldWindow.h"

namespace Tavi::Recorder {

struct EventResult {
  bool isSaved = false;
  std::string id;
  /// Of the complete event; empty unless saved.
  std::string directory;
  std::size_t files = 0;
  /// One sentence unless saved.
  std::string problem;
  /// Not saved yet, but kept, and saved as soon as that can be.
  bool isWaiting = false;
  /// Of a saved event; empty when all that was asked for is there.
  std::vector<EventStore::MissingPart> missing;
  /// The event's moment as its description tells it; of one that waits, as it was known last. Empty for one that was
  /// never described.
  std::optional<EventStore::EventTime> time = std::nullopt;
};

struct EventOrder {
  std::string id;
  /// As in EventDescription.
  std::string trigger = "request";
  std::string label;
  /// The window, relative to the moment of the order.
  int beforeSeconds = 15;
  int durationSeconds = 30;
  bool withPreview = false;
  /// Retention leaves it alone.
  bool keep = false;
  Moment moment;
  /// As in EventDescription.
  int accScaleG = 4;
  EventStore::CameraNames cameraNames;
  /// Where the vehicle was then; empty without a valid fix.
  std::optional<EventStore::Position> position;
  /// The window since its moment; null without acquisition.
  std::shared_ptr<PipelineCollect::HeldWindow> held;
  /// Called exactly once, on whichever thread settles the event; may be empty.
  std::function<void(const EventResult&)> done;
};

}  // namespace Tavi::Recorder
