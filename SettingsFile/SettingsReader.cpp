// Reads settings out of JSON text and knows the line of each mistake.
#include "SettingsFile/SettingsReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <sstream>

#include "SettingsFile/FieldNames.h"

namespace Tavi::SettingsFile {
namespace {

/// The parser's own number for what no double can hold.
constexpr int NumberOverflow = 406;
constexpr std::size_t LongestName = 64;
constexpr std::size_t LongestSentence = 160;

/// The line, from 1, of the character at `position`.
std::size_t CountLines(const std::string& text, std::size_t position) {
  const auto end = text.begin() + static_cast<std::ptrdiff_t>(std::min(position, text.size()));
  return 1 + static_cast<std::size_t>(std::count(text.begin(), end, '\n'));
}

/// A name out of the file, on one line whatever is in it.
std::string ShowName(const std::string& name) {
  const auto isPlain = [](char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_'; };
  const bool plain = !name.empty() && name.size() < LongestName && std::ranges::all_of(name, isPlain);
  return plain ? name : Show(name);
}

/// The parser's sentence without its preamble and the text around the place, which may be of any length.
std::string Simplify(std::string sentence) {
  const auto syntax = sentence.find("syntax error");
  sentence.erase(0, syntax != std::string::npos ? syntax : sentence.find(' ') + 1);
  sentence.erase(std::min(sentence.find("; last read"), sentence.size()));
  return sentence.substr(0, LongestSentence);
}

}  // namespace

std::string SettingsReader::Read(const std::string& text) {
  std::istringstream stream(text);
  m_text = &text;
  m_source = stream.rdbuf();
  const bool read = Json::sax_parse(stream, static_cast<nlohmann::json_sax<Json>*>(this));
  return read || !m_problem.empty() ? m_problem : "1: it cannot be read";
}

bool SettingsReader::start_object(std::size_t) {
  if (m_isOpen && m_field != nullptr) return Take(Json::object());
  m_isOpen = true;
  m_record = m_name;
  return true;
}

bool SettingsReader::end_object() {
  const auto dot = m_record.rfind('.');
  m_record.resize(dot == std::string::npos ? 0 : dot);
  return true;
}

bool SettingsReader::key(string_t& name) {
  const std::string prefix = m_record.empty() ? "" : m_record + ".";
  m_name = prefix + name;
  // A name with a dot in it would reach into another record.
  const bool plain = name.find('.') == std::string::npos;
  m_field = plain ? FindField(m_fields, m_name) : nullptr;
  if (m_field == nullptr && !(plain && IsRecord(m_fields, m_name))) {
    m_name = prefix + ShowName(name);
    return Refuse(DescribeNearest(m_fields, m_record, name));
  }
  return m_seen.insert(m_name).second || Refuse("it is there twice, once is right");
}

bool SettingsReader::Take(const Json& value) {
  if (!m_isOpen) {
    m_problem = fmt::format("{}: {} is of the wrong type, an object with settings is right", GetLine(), Show(value));
    return false;
  }
  if (m_field == nullptr) return Refuse(Show(value) + " is of the wrong type, an object is right");
  const std::string problem = m_field->FindProblem(value);
  if (!problem.empty()) return Refuse(problem);
  m_field->SetValue(value);
  return true;
}

bool SettingsReader::Refuse(const std::string& what) {
  m_problem = fmt::format("{}: field {}: {}", GetLine(), m_name, what);
  return false;
}

bool SettingsReader::parse_error(std::size_t position, const std::string&, const nlohmann::detail::exception& error) {
  if (error.id == NumberOverflow && m_isOpen && m_field != nullptr) {
    return Refuse(fmt::format("the number is out of range, {} is right", m_field->DescribeAllowed()));
  }
  // Positions count from 1, and one beyond the end where something is missing there.
  const std::size_t last = position > 0 ? position - 1 : 0;
  const auto newline = last > 0 ? m_text->rfind('\n', last - 1) : std::string::npos;
  const std::size_t lineStart = newline == std::string::npos ? 0 : newline + 1;
  m_problem = fmt::format("{}:{}: {}", CountLines(*m_text, last), last - lineStart + 1, Simplify(error.what()));
  return false;
}

std::size_t SettingsReader::GetLine() const {
  const auto read = m_source->pubseekoff(0, std::ios_base::cur, std::ios_base::in);
  return CountLines(*m_text, read > 0 ? static_cast<std::size_t>(read) - 1 : 0);
}

}  // namespace Tavi::SettingsFile
