// JSON values and their text. One kind of value in the whole system, read and written here alone: each file that did so
// itself would be seconds longer in compiling.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace Kbase::Json {

/// Members keep the order in which they were added.
using Object = nlohmann::ordered_json;
using Array = nlohmann::ordered_json::array_t;

/// One line without spaces (RFC 8259); text that is no UTF-8 has its bad bytes replaced.
std::string Serialize(const Array& array);

/// The same for any value.
std::string Print(const Object& value);

/// In lines, each level two spaces further in, with a line feed behind the last.
std::string PrintLines(const Object& value);

/// In one line of ASCII: everything else is escaped.
std::string PrintAscii(const Object& value);

/// Discarded (`is_discarded()`) where the text is no JSON; never throws for what the text is.
Object Parse(std::string_view text);

/// Whether JSON can hold it as it is (RFC 3629).
bool IsUtf8(const std::string& text);

}  // namespace Kbase::Json
