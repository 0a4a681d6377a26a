// An event's measurements in formats that other programs read.
#pragma once

#include <string>

#include "EventPage/EventData.h"

namespace Tavi::EventTools {

/// GPX 1.1: the fixes as a track that is broken where there was no valid one, each with its own time, what is known of
/// height and accuracy, and its speed in knots as an extension; and the event's position as a way point.
std::string FormatGpx(const EventData& data);

/// GeoJSON (RFC 7946): the track as lines, each valid fix as a point with time and speed, and the event's position.
std::string FormatGeoJson(const EventData& data);

/// One table of all sensors, ordered by time; a row is one record of one stream and leaves the others' columns empty.
/// The first line has the names with their units, each row the event's id and label.
std::string FormatCsv(const EventData& data);

/// MCAP (https://mcap.dev): clips, stills, sensors and notes as messages along the event's time line, with what they
/// are within the file; description, signature and sound as attachments. Reads the clips: what is wrong with them goes
/// to `data.problems`, and what is whole of them is there.
std::string FormatMcap(EventData& data);

enum class SubtitleForm { WebVtt, Srt };

/// Speed, time and position of each fix for a clip whose first picture is at `clipFromSeconds` relative to the event.
std::string FormatSubtitles(const EventData& data, double clipFromSeconds, SubtitleForm form);

/// The same for the event's own clip of a camera, which WebVTT's first line names. `camera`: its number in the
/// settings; -1 for camera 0, and camera 1 where there is nothing of that.
std::string FormatClipSubtitles(const EventData& data, int camera, SubtitleForm form);

}  // namespace Tavi::EventTools
