// The types of messages that an event has as MCAP.
#include "Tools/Export/McapSchemas.h"

#include <vector>

#include "Tools/Mcap/ProtoSchema.h"

namespace Tavi::EventTools {
namespace {

using Mcap::ProtoField;
using Mcap::ProtoKind;
using Mcap::ProtoPresence;
using Mcap::ProtoType;

constexpr std::string_view TimeFile = "google/protobuf/timestamp.proto";
constexpr std::string_view TimeType = ".google.protobuf.Timestamp";

ProtoField MakeTime(int number, std::string_view name = "timestamp") {
  return {number, name, ProtoKind::Message, TimeType};
}

ProtoField MakeOptional(int number, std::string_view name, ProtoKind kind, std::string_view type = {}) {
  return {number, name, kind, type, ProtoPresence::Optional};
}

ProtoType MakeTimestamp() {
  return {TimeFile, "google.protobuf", "Timestamp", {{1, "seconds", ProtoKind::Int64}, {2, "nanos", ProtoKind::Int32}}};
}

ProtoType MakeVideo() {
  using namespace Fields::Video;
  return {"foxglove/CompressedVideo.proto",
          "foxglove",
          "CompressedVideo",
          {MakeTime(Timestamp),
           {FrameId, "frame_id", ProtoKind::String},
           {Data, "data", ProtoKind::Bytes},
           {Format, "format", ProtoKind::String}},
          {},
          {TimeFile}};
}

ProtoType MakeImage() {
  using namespace Fields::Image;
  return {"foxglove/CompressedImage.proto",
          "foxglove",
          "CompressedImage",
          {MakeTime(Timestamp),
           {FrameId, "frame_id", ProtoKind::String},
           {Data, "data", ProtoKind::Bytes},
           {Format, "format", ProtoKind::String}},
          {},
          {TimeFile}};
}

ProtoType MakeColor() {
  return {"foxglove/Color.proto",
          "foxglove",
          "Color",
          {{1, "r", ProtoKind::Double},
           {2, "g", ProtoKind::Double},
           {3, "b", ProtoKind::Double},
           {4, "a", ProtoKind::Double}}};
}

ProtoType MakeVector() {
  return {"foxglove/Vector3.proto",
          "foxglove",
          "Vector3",
          {{1, "x", ProtoKind::Double}, {2, "y", ProtoKind::Double}, {3, "z", ProtoKind::Double}}};
}

ProtoType MakePair() {
  return {"foxglove/KeyValuePair.proto",
          "foxglove",
          "KeyValuePair",
          {{1, "key", ProtoKind::String}, {2, "value", ProtoKind::String}}};
}

ProtoType MakeLocationFix() {
  using namespace Fields::LocationFix;
  return {"foxglove/LocationFix.proto",
          "foxglove",
          "LocationFix",
          {MakeTime(Timestamp),
           {FrameId, "frame_id", ProtoKind::String},
           {Latitude, "latitude", ProtoKind::Double},
           {Longitude, "longitude", ProtoKind::Double},
           {Altitude, "altitude", ProtoKind::Double},
           {Covariance, "position_covariance", ProtoKind::Double, {}, ProtoPresence::Repeated},
           {Fields::LocationFix::CovarianceType, "position_covariance_type", ProtoKind::Enum,
            ".foxglove.LocationFix.PositionCovarianceType"},
           MakeOptional(Heading, "heading", ProtoKind::Double),
           MakeOptional(Velocity, "velocity", ProtoKind::Message, ".foxglove.Vector3"),
           MakeOptional(Color, "color", ProtoKind::Message, ".foxglove.Color"),
           {Metadata, "metadata", ProtoKind::Message, ".foxglove.KeyValuePair", ProtoPresence::Repeated}},
          {{"PositionCovarianceType", {"UNKNOWN", "APPROXIMATED", "DIAGONAL_KNOWN", "KNOWN"}}},
          {"foxglove/Color.proto", "foxglove/KeyValuePair.proto", "foxglove/Vector3.proto", TimeFile}};
}

ProtoType MakeLog() {
  using namespace Fields::Log;
  return {"foxglove/Log.proto",
          "foxglove",
          "Log",
          {MakeTime(Timestamp),
           {Level, "level", ProtoKind::Enum, ".foxglove.Log.Level"},
           {Message, "message", ProtoKind::String},
           {Name, "name", ProtoKind::String},
           {File, "file", ProtoKind::String},
           {Line, "line", ProtoKind::Fixed32}},
          {{"Level", {"UNKNOWN", "DEBUG", "INFO", "WARNING", "ERROR", "FATAL"}}},
          {TimeFile}};
}

ProtoType MakeMotion() {
  using namespace Fields::Motion;
  return {"tavi/Motion.proto",
          "tavi",
          "Motion",
          {MakeTime(Timestamp),
           {SpeedKnots, "speed_knots", ProtoKind::Double},
           {CourseDegrees, "course_degrees", ProtoKind::Double},
           MakeTime(ReceiverTime, "receiver_time"),
           MakeOptional(Hdop, "hdop", ProtoKind::Double),
           MakeOptional(Satellites, "satellites", ProtoKind::Int32)},
          {},
          {TimeFile}};
}

ProtoType MakeAcceleration() {
  using namespace Fields::Acceleration;
  return {"tavi/Acceleration.proto",
          "tavi",
          "Acceleration",
          {MakeTime(Timestamp),
           {X, "x_g", ProtoKind::Double},
           {Y, "y_g", ProtoKind::Double},
           {Z, "z_g", ProtoKind::Double}},
          {},
          {TimeFile}};
}

ProtoType MakeMachine() {
  using namespace Fields::Machine;
  return {"tavi/MachineState.proto",
          "tavi",
          "MachineState",
          {MakeTime(Timestamp), MakeOptional(CpuPercent, "cpu_percent", ProtoKind::Int32),
           MakeOptional(TemperatureCelsius, "temperature_celsius", ProtoKind::Int32)},
          {},
          {TimeFile}};
}

}  // namespace

std::string GetSchemaData(std::string_view name) {
  std::vector<ProtoType> types{MakeTimestamp()};
  if (name == VideoSchema) types.push_back(MakeVideo());
  if (name == ImageSchema) types.push_back(MakeImage());
  if (name == FixSchema) types.insert(types.end(), {MakeColor(), MakePair(), MakeVector(), MakeLocationFix()});
  if (name == LogSchema) types.push_back(MakeLog());
  if (name == MotionSchema) types.push_back(MakeMotion());
  if (name == AccelerationSchema) types.push_back(MakeAcceleration());
  if (name == MachineSchema) types.push_back(MakeMachine());
  return Mcap::BuildDescriptorSet(types);
}

}  // namespace Tavi::EventTools
