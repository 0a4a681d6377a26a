// What a sensor's entry is for people who watch live: one small JSON object.
#pragma once

#include <string>

#include "Tavi/Accel/AccDataPak.h"
#include "Tavi/Gps/GpsData.h"
#include "Tavi/Other/OtherDataPak.h"

namespace Tavi::Recorder::Live {

/// {"valid":true,"latitude":…,"longitude":…,"speedKnots":…,"course":…,"time":…Z}, and "altitude", "hdop" and
/// "satellites" where the receiver has told them. Without a valid fix there is no position in it. Degrees, north and
/// east positive; metres above the sea; the receiver's own time.
std::string DescribeFix(const Gps::GpsData& fix);

/// {"scaleG":4,"samples":[[first,second,third],…]} in g by the axes of the unit's mounting, without gravity: 0 at rest.
/// Places that nothing was delivered for are left out.
std::string DescribeBlock(const Accel::AccDataPak& block);

/// {"cpuPercent":7,"temperatureCelsius":47}; a temperature that is not known is left out.
std::string DescribeState(const Other::OtherDataPak& sample);

}  // namespace Tavi::Recorder::Live
