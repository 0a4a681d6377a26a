// JSON values and their text.
#include "Kbase/Json/Json.h"

namespace Kbase::Json {

std::string Serialize(const Array& array) {
  constexpr int OneLine = -1;
  return nlohmann::ordered_json(array).dump(OneLine, ' ', false, nlohmann::json::error_handler_t::replace);
}

}  // namespace Kbase::Json
