// The names of the settings as a tree: records, the fields in them, and the nearest to a wrong one.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "SettingsFile/Field.h"

namespace Tavi::SettingsFile {

/// The field of that name, null when there is none. Borrowed from `fields`.
const Field* FindField(const std::vector<Field>& fields, std::string_view name);

/// Whether `name` is a record with fields in it; the outermost record, which has no name, is none.
bool IsRecord(const std::vector<Field>& fields, std::string_view name);

/// What to say to a `key` that the record `record` (empty: the outermost) does not have: where another record
/// has it, else the nearest name in this record, else all of them.
std::string DescribeNearest(const std::vector<Field>& fields, const std::string& record, const std::string& key);

}  // namespace Tavi::SettingsFile
