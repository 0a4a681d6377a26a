// An event's own page and its archive, made when they are asked for.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Fleet/Web/Http.h"

namespace Tavi::Web {

/// What an event's page may load, whatever its own markup says.
inline constexpr std::string_view EventPagePolicy =
    "default-src 'none'; media-src 'self' blob:; img-src 'self' data: blob:; connect-src 'self'; "
    "style-src 'unsafe-inline'; script-src 'unsafe-inline'; form-action 'none'; base-uri 'none'; frame-ancestors "
    "'none'";

/// The page, with the way back to the list. It is made anew instead of taking the one that lies beside the files: that
/// is no part of the event, and what somebody else has put there would have the console's rights here. Empty, with one
/// sentence in `problem`, when the event cannot be read.
std::optional<std::string> BuildEventPage(const std::string& directory, std::string& problem);

/// All files of the event with the description, its signature and the page, in a folder of the directory's name; what
/// is damaged so that it cannot be read is named in a file of its own. Null, with one sentence in `problem`, when the
/// event cannot be read.
std::unique_ptr<BodySource> BuildArchive(const std::string& eventsDir, const std::string& name, std::string& problem);

}  // namespace Tavi::Web
