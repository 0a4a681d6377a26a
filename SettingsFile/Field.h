// One field of the settings: its name, where its value is, what it may be.
#pragma once

#include <array>
#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "SettingsFile/Range.h"

namespace Tavi::SettingsFile {

/// Keeps the order in which fields are written.
using Json = nlohmann::ordered_json;

/// A value that cannot be chosen: a file may state it, and nobody keeps it.
struct Fixed {
  std::int32_t value = 0;
};

/// What a value may be: numbers by value, texts by their length in bytes, true and false without further rules.
struct Allowed {
  Allowed() = default;
  template <class T>
  Allowed(Range<T> range) : low(static_cast<double>(range.low)), high(static_cast<double>(range.high)) {}
  template <std::size_t Count>
  Allowed(const std::array<int, Count>& values) : choices(values) {}
  template <std::size_t Count>
  Allowed(const std::array<std::string_view, Count>& texts) : words(texts) {}

  template <class T>
  static Allowed Even(Range<T> range) {
    Allowed allowed(range);
    allowed.even = true;
    return allowed;
  }
  /// A path that gets a "/" at its end.
  static Allowed Directory() {
    Allowed allowed(PathBytes);
    allowed.directory = true;
    return allowed;
  }

  /// A text for which `isRight` is true; `form` describes it.
  static Allowed Text(Range<int> bytes, bool (*isRight)(const std::string&), std::string_view form) {
    Allowed allowed(bytes);
    allowed.isRight = isRight;
    allowed.form = form;
    return allowed;
  }

  double low = 0.0;
  double high = 0.0;
  /// Instead of the range, when there are any; of static life.
  std::span<const int> choices;
  std::span<const std::string_view> words;
  bool even = false;
  bool directory = false;
  /// Of a text, further than its length; null for no more.
  bool (*isRight)(const std::string&) = nullptr;
  std::string_view form;
};

/// Borrows the record that it is a field of. Thread-bound.
class Field {
 public:
  using Target = std::variant<bool*, std::int32_t*, std::uint64_t*, float*, double*, std::string*, Fixed>;

  /// `name`: from the outermost record, with dots. `unit`: empty for none.
  Field(std::string name, Target target, Allowed allowed, std::string_view unit, std::string_view meaning);

  [[nodiscard]] const std::string& GetName() const { return m_name; }
  [[nodiscard]] std::string_view GetUnit() const { return m_unit; }
  [[nodiscard]] std::string_view GetMeaning() const { return m_meaning; }

  [[nodiscard]] Json GetValue() const;
  /// Takes a value in which FindProblem found nothing.
  void SetValue(const Json& value) const;
  /// What is wrong with a value and what would be right, without the field's name; empty when it is right.
  [[nodiscard]] std::string FindProblem(const Json& value) const;
  /// What would be right, such as "1 to 60".
  [[nodiscard]] std::string DescribeAllowed() const;

 private:
  [[nodiscard]] std::string FindNumberProblem(double value) const;
  [[nodiscard]] std::string FindTextProblem(const std::string& text) const;

  std::string m_name;
  Target m_target;
  Allowed m_allowed;
  std::string_view m_unit;
  std::string_view m_meaning;
};

/// A value in a message: on one line whatever is in it, shortened, objects and arrays by their kind only.
std::string Show(const Json& value);

}  // namespace Tavi::SettingsFile
