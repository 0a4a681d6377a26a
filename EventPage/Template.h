// The page's markup, style and script; the build takes them from the files of page/.
#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace Tavi::EventTools {

/// `page` with what `fill` gives in the place of each {{name}}. What is filled in is not looked at again.
std::string FillTemplate(std::string_view page, const std::function<std::string(std::string_view name)>& fill);

}  // namespace Tavi::EventTools

namespace Tavi::EventTools::Template {

/// With {{title}}, {{policy}}, {{style}}, {{media}}, {{data}} and {{script}} where they belong.
extern const std::string_view Page;
extern const std::string_view Style;
extern const std::string_view Script;

/// The list of events, with {{style}}, {{count}} and {{events}}.
extern const std::string_view Index;
extern const std::string_view IndexStyle;

}  // namespace Tavi::EventTools::Template
