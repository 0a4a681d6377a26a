// A recorder's reply as text for people.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

namespace Tavi::Ctl {

using Row = std::vector<std::string>;
/// Columns as wide as their widest cell, nothing behind the last one.
std::string FormatTable(const std::vector<Row>& rows);

/// `command`: the request's. "metrics" gives the reply's text as it is, all others a line a member, "camera0.fps" for
/// members of members. What would act on a terminal is shown as "?".
std::string FormatReply(const std::string& command, const nlohmann::ordered_json& reply);

/// The text with "?" in place of every control character.
std::string MakePrintable(const std::string& text);

}  // namespace Tavi::Ctl
