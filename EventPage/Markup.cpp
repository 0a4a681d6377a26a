// Foreign text in XML and HTML.
#include "EventPage/Markup.h"

namespace Tavi::EventTools {

std::string EscapeMarkup(std::string_view text) {
  std::string escaped;
  for (const char c : text) {
    const bool isControl = static_cast<unsigned char>(c) < 0x20 && c != '\t' && c != '\n' && c != '\r';
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      default:
        escaped += isControl ? ' ' : c;
    }
  }
  return escaped;
}

}  // namespace Tavi::EventTools
