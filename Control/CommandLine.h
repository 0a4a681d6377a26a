// What the programs' command lines have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <ostream>
#include <string>
#include <string_view>

namespace Tavi::CommandLine {

inline constexpr const char* EmptyValue = "it is empty; give a value, or leave the option out";

/// Refuses an empty value wherever an option has one: an empty variable of a script must not pass for something that
/// was left out. To be called when all options have been added.
inline void RefuseEmptyValues(CLI::App& app) {
  for (CLI::Option* option : app.get_options()) {
    if (option->get_items_expected_max() == 0) continue;
    option->check(CLI::Validator([](std::string& text) { return text.empty() ? std::string(EmptyValue) : ""; }, ""));
  }
  for (CLI::App* command : app.get_subcommands({})) RefuseEmptyValues(*command);
}

/// On one line, and harmless to a terminal, whatever the word is.
inline std::string Quote(const std::string& word) {
  std::string quoted = word;
  for (char& c : quoted) c = static_cast<unsigned char>(c) < 0x20 || c == 0x7F ? '?' : c;
  return quoted;
}

/// CLI::App::parse for what is said above, which throws as that does. A word that nobody knows is told first: it may be
/// what is missing otherwise, misspelt.
inline void Parse(CLI::App& app, int argc, const char* const* argv) {
  RefuseEmptyValues(app);
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    // The library would take the next word for the value.
    const bool isEmpty = word.starts_with("--") && word.size() > 3 && word.find('=') == word.size() - 1;
    if (isEmpty) throw CLI::ValidationError(std::string(word.substr(0, word.size() - 1)), EmptyValue);
  }
  const auto complain = [&app] {
    const auto unknown = app.remaining(true);
    if (unknown.empty()) return;
    throw CLI::ValidationError("\"" + Quote(unknown.front()) + "\"", "it is not known here; --help tells what is");
  };
  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError&) {
    complain();
    throw;
  } catch (const CLI::ExtrasError&) {
    complain();
    throw;
  }
}

/// What every program with a file of settings is told of it.
struct ConfigWords {
  std::string config;
  bool checkConfig = false;
  bool printConfig = false;
};

/// `meaning` is that of --config.
inline void AddConfigOptions(CLI::App& app, ConfigWords& words, const std::string& meaning) {
  app.add_option("--config", words.config, meaning);
  app.add_flag("--check-config", words.checkConfig, "Only say whether the settings are right");
  app.add_flag("--print-config", words.printConfig, "Only print the settings, the defaults among them, as such a file");
}

/// Of settings that are right: true when the program was only asked about them, and has the answer on `out`. `settings`
/// is their text.
inline bool AnswerConfig(const ConfigWords& words, const std::string& settings, std::ostream& out) {
  if (words.printConfig) {
    out << settings;
  } else if (words.checkConfig) {
    out << (words.config.empty() ? "" : words.config + ": ") << "the settings are right\n";
  }
  return words.printConfig || words.checkConfig;
}

}  // namespace Tavi::CommandLine
