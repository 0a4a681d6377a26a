// The types of messages that an event has as MCAP.
#pragma once

#include <string>
#include <string_view>

namespace Tavi::EventTools {

inline constexpr std::string_view VideoSchema = "foxglove.CompressedVideo";
inline constexpr std::string_view ImageSchema = "foxglove.CompressedImage";
inline constexpr std::string_view FixSchema = "foxglove.LocationFix";
inline constexpr std::string_view LogSchema = "foxglove.Log";
inline constexpr std::string_view MotionSchema = "tavi.Motion";
inline constexpr std::string_view AccelerationSchema = "tavi.Acceleration";
inline constexpr std::string_view MachineSchema = "tavi.MachineState";

/// Numbers of the fields of those messages. Of those called foxglove as Foxglove has published them, so that its
/// programs know what they are (https://docs.foxglove.dev/docs/sdk/schemas).
namespace Fields {
namespace Video {
inline constexpr int Timestamp = 1, FrameId = 2, Data = 3, Format = 4;
}
namespace Image {
inline constexpr int Timestamp = 1, Data = 2, Format = 3, FrameId = 4;
}
namespace LocationFix {
inline constexpr int Latitude = 1, Longitude = 2, Altitude = 3, Covariance = 4, CovarianceType = 5, Timestamp = 6,
                     FrameId = 7, Color = 8, Metadata = 9, Heading = 10, Velocity = 11;
}
namespace Log {
inline constexpr int Timestamp = 1, Level = 2, Message = 3, Name = 4, File = 5, Line = 6;
}
/// Over ground, as the receiver tells it, in knots and in degrees clockwise from north; its own time of the fix.
namespace Motion {
inline constexpr int Timestamp = 1, SpeedKnots = 2, CourseDegrees = 3, ReceiverTime = 4, Hdop = 5, Satellites = 6;
}
/// In g, 9.80665 m/s²; gravity is taken off the upright x axis.
namespace Acceleration {
inline constexpr int Timestamp = 1, X = 2, Y = 3, Z = 4;
}
namespace Machine {
inline constexpr int Timestamp = 1, CpuPercent = 2, TemperatureCelsius = 3;
}
}  // namespace Fields

/// Of foxglove.LocationFix.
enum class CovarianceType { Unknown, Approximated, DiagonalKnown, Known };
/// Of foxglove.Log.
enum class LogLevel { Unknown, Debug, Info, Warning, Error, Fatal };

/// The schema's data for an MCAP file: a serialized FileDescriptorSet with all that `name`, one of those above, needs.
std::string GetSchemaData(std::string_view name);

}  // namespace Tavi::EventTools
