// Writes metrics in Prometheus' text format.
#include "Recorder/Health/PrometheusText.h"

#include <fmt/format.h>

#include <cmath>
#include <iterator>

namespace Tavi::Recorder {
namespace {

std::string FormatValue(double value) {
  if (std::isnan(value)) return "NaN";
  if (std::isinf(value)) return value > 0.0 ? "+Inf" : "-Inf";
  return fmt::format("{}", value);
}

}  // namespace

void PrometheusText::Describe(std::string_view name, Type type, std::string_view help) {
  m_name = name;
  m_text += fmt::format("# HELP {} ", name);
  AppendEscaped(help, false);
  m_text += fmt::format("\n# TYPE {} {}\n", name, type == Type::Counter ? "counter" : "gauge");
}

void PrometheusText::Add(double value, std::initializer_list<Label> labels) {
  m_text += m_name;
  char before = '{';
  for (const auto& [label, text] : labels) {
    m_text += fmt::format("{}{}=\"", before, label);
    AppendEscaped(text, true);
    m_text += '"';
    before = ',';
  }
  if (labels.size() != 0) m_text += '}';
  m_text += ' ' + FormatValue(value) + '\n';
}

/// Backslashes and line ends everywhere, quotes within quotes.
void PrometheusText::AppendEscaped(std::string_view text, bool quoted) {
  for (const char c : text) {
    if (c == '\\' || (c == '"' && quoted)) m_text += '\\';
    if (c == '\n') {
      m_text += "\\n";
    } else {
      m_text += c;
    }
  }
}

}  // namespace Tavi::Recorder
