// Foreign text in XML and HTML.
#pragma once

#include <string>
#include <string_view>

namespace Tavi::EventTools {

/// For the content of an element, not for an attribute. Control characters have no place in XML 1.0, not even escaped:
/// they become blanks.
std::string EscapeMarkup(std::string_view text);

}  // namespace Tavi::EventTools
