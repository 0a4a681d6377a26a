// Writes metrics in Prometheus' text format.
#pragma once

#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>

namespace Tavi::Recorder {

/// Builds one answer to a scrape, metric by metric: Describe, then Add for each of its samples. Format: Prometheus'
/// "Exposition formats", text format 0.0.4. Reentrant.
class PrometheusText {
 public:
  /// What an HTTP answer bears.
  static constexpr std::string_view ContentType = "text/plain; version=0.0.4; charset=utf-8";

  enum class Type { Counter, Gauge };
  /// Name and value. The value may be any text.
  using Label = std::pair<std::string_view, std::string_view>;

  /// Begins a metric. `name` is to match [a-zA-Z_:][a-zA-Z0-9_:]*, to be used once, and that of a counter to end in
  /// "_total".
  void Describe(std::string_view name, Type type, std::string_view help);
  /// One sample of the metric described last.
  void Add(double value, std::initializer_list<Label> labels = {});
  /// Everything so far.
  [[nodiscard]] const std::string& GetText() const { return m_text; }

 private:
  void AppendEscaped(std::string_view text, bool quoted);

  std::string m_name;
  std::string m_text;
};

}  // namespace Tavi::Recorder
