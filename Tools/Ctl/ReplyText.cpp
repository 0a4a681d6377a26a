// A recorder's reply as text for people.
#include "Tools/Ctl/ReplyText.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "Control/Protocol.h"
#include "Kbase/Json/Json.h"

namespace Tavi::Ctl {
namespace {

using Json = nlohmann::ordered_json;
using Recorder::CountCharacters;

constexpr std::size_t ColumnGap = 2;

/// One cell: nothing known is "-", a list is told by its length.
std::string FormatCell(const Json& value) {
  if (value.is_null()) return "-";
  if (value.is_boolean()) return value.get<bool>() ? "yes" : "no";
  if (value.is_array()) return std::to_string(value.size());
  return MakePrintable(value.is_string() ? value.get<std::string>() : Kbase::Json::Print(value));
}

void AddMember(const std::string& name, const Json& value, std::vector<Row>& rows) {
  const bool isList = value.is_array() &&
                      std::none_of(value.begin(), value.end(), [](const Json& entry) { return entry.is_structured(); });
  if (isList && !value.empty()) {
    std::string cells;
    for (const auto& entry : value) cells += (cells.empty() ? "" : ", ") + FormatCell(entry);
    rows.push_back({name, cells});
  } else if (!value.is_structured() || value.empty()) {
    rows.push_back({name, value.is_structured() ? "-" : FormatCell(value)});
  } else {
    for (const auto& [inner, entry] : value.items()) {
      AddMember((name + ".").append(MakePrintable(inner)), entry, rows);
    }
  }
}

std::string FormatMembers(const Json& reply) {
  std::vector<Row> rows;
  for (const auto& [name, value] : reply.items()) {
    if (name != "ok" && name != "id") AddMember(MakePrintable(name), value, rows);
  }
  return rows.empty() ? "done\n" : FormatTable(rows);
}

}  // namespace

std::string FormatTable(const std::vector<Row>& rows) {
  std::vector<std::size_t> widths;
  for (const auto& row : rows) {
    widths.resize(std::max(widths.size(), row.size()));
    for (std::size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], CountCharacters(row[i]));
  }
  std::string text;
  for (const auto& row : rows) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      text += row[i];
      if (i + 1 < row.size()) text.append(widths[i] + ColumnGap - CountCharacters(row[i]), ' ');
    }
    text += "\n";
  }
  return text;
}

std::string FormatReply(const std::string& command, const Json& reply) {
  const auto pem = reply.find("pem");
  if (command == Recorder::Command::Identity && pem != reply.end() && pem->is_string()) {
    Json rest = reply;
    rest.erase("pem");
    // Readers of PEM pass over what stands in front of it.
    return FormatMembers(rest) + pem->get<std::string>();
  }
  const auto text = reply.find("text");
  if (command == Recorder::Command::Metrics && text != reply.end() && text->is_string()) {
    return text->get<std::string>();
  }
  return FormatMembers(reply);
}

std::string MakePrintable(const std::string& text) {
  std::string printable;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool isC1 = !printable.empty() && printable.back() == '\xC2' && byte >= 0x80 && byte < 0xA0;
    if (isC1) printable.pop_back();  // U+0080 to U+009F take two bytes
    printable.push_back(isC1 || byte < 0x20 || byte == 0x7F ? '?' : c);
  }
  return printable;
}

}  // namespace Tavi::Ctl
