// Foreign text in XML and HTML.
#pragma once

#include <string>
#include <string_view>

namespace Tavi::EventTools {

/// For the content of an element, and of an attribute in double quotes. Control characters have no place in XML 1.0,
/// not even escaped: they become blanks.
std::string EscapeMarkup(std::string_view text);

}  // namespace Tavi::EventTools
