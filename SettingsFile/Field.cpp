// One field of the settings: its name, where its value is, what it may be.
#include "SettingsFile/Field.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

#include "Kbase/Json/Json.h"

namespace Tavi::SettingsFile {
namespace {

constexpr std::size_t LongestShown = 80;

struct Getter {
  template <class T>
  Json operator()(const T* target) const {
    return *target;
  }
  /// The shortest digits that are this number again: 38.3, not the double nearest to the float.
  Json operator()(const float* target) const { return Kbase::Json::Parse(fmt::format("{}", *target)); }
  Json operator()(Fixed target) const { return target.value; }
};

struct Setter {
  void operator()(bool* target) const { *target = value.get<bool>(); }
  void operator()(std::string* target) const { *target = value.get<std::string>(); }
  void operator()(Fixed) const {}
  template <class T>
  void operator()(T* target) const {
    *target = static_cast<T>(value.get<double>());
  }
  const Json& value;
};

bool IsControlCharacter(char c) {
  return static_cast<unsigned char>(c) < ' ' || c == '\x7F';
}

}  // namespace

std::string Show(const Json& value) {
  if (value.is_structured()) return value.is_object() ? "an object" : "an array";
  std::string text = Kbase::Json::Print(value);
  if (text.size() <= LongestShown) return text;
  std::size_t end = LongestShown;
  while ((static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) --end;  // no cut within a UTF-8 character
  return text.substr(0, end) + "...";
}

Field::Field(std::string name, Target target, Allowed allowed, std::string_view unit, std::string_view meaning)
    : m_name(std::move(name)), m_target(target), m_allowed(allowed), m_unit(unit), m_meaning(meaning) {}

Json Field::GetValue() const {
  return std::visit(Getter{}, m_target);
}

void Field::SetValue(const Json& value) const {
  std::visit(Setter{value}, m_target);
  if (!m_allowed.directory) return;
  auto& directory = *std::get<std::string*>(m_target);
  if (directory.back() != '/') directory += '/';
}

std::string Field::FindProblem(const Json& value) const {
  std::string problem = "of the wrong type";
  if (std::holds_alternative<bool*>(m_target)) {
    if (value.is_boolean()) return {};
  } else if (std::holds_alternative<std::string*>(m_target)) {
    if (value.is_string()) problem = FindTextProblem(value.get_ref<const std::string&>());
  } else if (value.is_number()) {
    problem = FindNumberProblem(value.get<double>());
  }
  if (problem.empty()) return {};
  return fmt::format("{} is {}, {} is right", Show(value), problem, DescribeAllowed());
}

std::string Field::FindNumberProblem(double value) const {
  const bool real = std::holds_alternative<float*>(m_target) || std::holds_alternative<double*>(m_target);
  if (!real && value != std::trunc(value)) return "no whole number";
  if (!m_allowed.choices.empty()) {
    return std::ranges::find(m_allowed.choices, value) != m_allowed.choices.end() ? "" : "not possible";
  }
  if (!(value >= m_allowed.low && value <= m_allowed.high)) return "out of range";
  return m_allowed.even && std::fmod(value, 2.0) != 0.0 ? "odd" : "";
}

std::string Field::FindTextProblem(const std::string& text) const {
  if (!m_allowed.words.empty())
    return std::ranges::find(m_allowed.words, text) != m_allowed.words.end() ? "" : "not possible";
  const auto size = static_cast<double>(text.size());
  if (size < m_allowed.low || size > m_allowed.high) return text.empty() ? "empty" : "too long";
  if (std::ranges::any_of(text, IsControlCharacter)) return "no printable text";
  return m_allowed.isRight == nullptr || m_allowed.isRight(text) ? "" : "not possible";
}

std::string Field::DescribeAllowed() const {
  if (std::holds_alternative<bool*>(m_target)) return "true or false";
  if (!m_allowed.form.empty()) return std::string(m_allowed.form);
  if (!m_allowed.choices.empty()) return fmt::format("one of {}", fmt::join(m_allowed.choices, ", "));
  if (!m_allowed.words.empty()) return fmt::format("one of {}", fmt::join(m_allowed.words, ", "));
  if (m_allowed.low == m_allowed.high) return fmt::format("only {}", m_allowed.low);
  const bool text = std::holds_alternative<std::string*>(m_target);
  return fmt::format("{}{} to {}{}",
                     text             ? "a text of "
                     : m_allowed.even ? "an even number from "
                                      : "",
                     m_allowed.low, m_allowed.high, text ? " bytes" : "");
}

}  // namespace Tavi::SettingsFile
