// The page's markup, filled in.
#include "EventPage/Template.h"

namespace Tavi::EventTools {

std::string FillTemplate(std::string_view page, const std::function<std::string(std::string_view name)>& fill) {
  constexpr std::string_view Open = "{{";
  constexpr std::string_view Close = "}}";
  std::string html;
  for (auto at = page.find(Open); at != std::string_view::npos; at = page.find(Open)) {
    const auto end = page.find(Close, at);
    html += page.substr(0, at);
    html += fill(page.substr(at + Open.size(), end - at - Open.size()));
    page.remove_prefix(end + Close.size());
  }
  return html.append(page);
}

}  // namespace Tavi::EventTools
