// Reads settings out of JSON text and knows the line of each mistake.
#pragma once

#include <nlohmann/json.hpp>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "SettingsFile/Field.h"

namespace Tavi::SettingsFile {

/// Takes one text, event by event, and stops at the first mistake. Thread-bound; the record that the fields borrow is
/// half filled after a mistake.
class SettingsReader : private nlohmann::json_sax<Json> {
 public:
  explicit SettingsReader(std::vector<Field> fields) : m_fields(std::move(fields)) {}

  /// Empty when all went well; else "LINE: what is wrong" or "LINE:COLUMN: what is wrong".
  std::string Read(const std::string& text);

 private:
  bool null() override { return Take(nullptr); }
  bool boolean(bool value) override { return Take(value); }
  bool number_integer(number_integer_t value) override { return Take(value); }
  bool number_unsigned(number_unsigned_t value) override { return Take(value); }
  bool number_float(number_float_t value, const string_t&) override { return Take(value); }
  bool string(string_t& value) override { return Take(value); }
  bool binary(binary_t&) override { return false; }
  bool start_object(std::size_t) override;
  bool key(string_t& name) override;
  bool end_object() override;
  bool start_array(std::size_t) override { return Take(Json::array()); }
  bool end_array() override { return false; }
  bool parse_error(std::size_t position, const std::string& token, const nlohmann::detail::exception& error) override;

  bool Take(const Json& value);
  /// Ends the reading with what is wrong with the present field.
  bool Refuse(const std::string& what);
  /// Of the character before the one that was read last: behind a number one more has been read, maybe the line's end.
  [[nodiscard]] std::size_t GetLine() const;

  const std::vector<Field> m_fields;
  std::set<std::string> m_seen;
  /// The record that is open, empty for the outermost; the present field and its name, null for a record.
  std::string m_record;
  std::string m_name;
  const Field* m_field = nullptr;
  bool m_isOpen = false;
  const std::string* m_text = nullptr;
  std::streambuf* m_source = nullptr;
  std::string m_problem;
};

}  // namespace Tavi::SettingsFile
