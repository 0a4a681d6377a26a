// The description of all settings, which reading, writing, checking and the documentation go by.
#pragma once

#include <vector>

#include "Recorder/Settings/Field.h"
#include "Recorder/Settings/Settings.h"

namespace Tavi::Recorder {

/// Every field once, in the order in which they are written; fields of one record stand together. They borrow
/// `settings`.
std::vector<Field> DescribeFields(Settings& settings);

}  // namespace Tavi::Recorder
