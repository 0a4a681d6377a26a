// JSON values and their text.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Kbase::Json {

/// Members keep the order in which they were added.
using Object = nlohmann::ordered_json;
using Array = nlohmann::ordered_json::array_t;

/// One line without spaces (RFC 8259); text that is no UTF-8 has its bad bytes replaced.
std::string Serialize(const Array& array);

}  // namespace Kbase::Json
