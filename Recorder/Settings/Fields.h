// The description of all settings, which reading, writing, checking and the documentation go by.
#pragma once

#include <vector>

#include "Recorder/Settings/Settings.h"
#include "SettingsFile/Field.h"

namespace Tavi::Recorder {

/// Every field once, in the order in which they are written; fields of one record stand together. They borrow
/// `settings`.
std::vector<SettingsFile::Field> DescribeFields(Settings& settings);

}  // namespace Tavi::Recorder
