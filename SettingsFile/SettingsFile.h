// A program's settings as a JSON file: reading, writing, and the documentation's table.
#pragma once

#include <string>
#include <vector>

#include "SettingsFile/Field.h"

namespace Tavi::SettingsFile {

/// Reads a JSON file of at most 1 MiB into the record that `fields` borrow; what the file does not name is left as it
/// is. False when anything in it is wrong: `problem` is then one line with file, line and field, and the record half
/// filled, so that a caller hands in a fresh one. Each field is checked for itself only. Reentrant, as everything here.
[[nodiscard]] bool LoadFields(const std::string& path, std::vector<Field> fields, std::string& problem);

/// All fields as a file that LoadFields reads back to the same values.
std::string FormatFields(const std::vector<Field>& fields);

/// The first field that is out of its range, in one line; empty when all is well.
std::string CheckFields(const std::vector<Field>& fields);

/// A Markdown row for each field with unit, default, range and meaning, `fields` being those of the defaults.
std::string FormatFieldTable(const std::vector<Field>& fields);

}  // namespace Tavi::SettingsFile
