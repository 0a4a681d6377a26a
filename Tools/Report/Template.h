// The report's page, style and script; the build takes them from the files of this folder.
#pragma once

#include <string_view>

namespace Tavi::EventTools::Template {

/// With {{title}}, {{style}}, {{clips}}, {{data}} and {{script}} where they belong.
extern const std::string_view Page;
extern const std::string_view Style;
extern const std::string_view Script;

}  // namespace Tavi::EventTools::Template
