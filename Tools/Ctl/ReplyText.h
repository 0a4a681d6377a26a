// A recorder's reply as text for people.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

namespace Tavi::Ctl {

/// `command`: the request's. "metrics" gives the reply's text as it is, "events" a table with a line an event, all
/// others a line a member, "camera0.fps" for members of members. What would act on a terminal is shown as "?".
std::string FormatReply(const std::string& command, const nlohmann::ordered_json& reply);

/// The text with "?" in place of every control character.
std::string MakePrintable(const std::string& text);

}  // namespace Tavi::Ctl
