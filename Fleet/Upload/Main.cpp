// tavi-upload: events to where the fleet keeps them.
#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>
#include <string>

#include "Control/CommandLine.h"
#include "Fleet/Upload/StopSignal.h"
#include "Fleet/Upload/UploadSettings.h"
#include "Fleet/Upload/Uploader.h"
#include "Kbase/Klog/Logger.h"

namespace {

using namespace Tavi::Upload;

constexpr int DoneStatus = 0;
constexpr int FailureStatus = 1;
constexpr int UsageStatus = 2;

using Words = Tavi::CommandLine::ConfigWords;

void AddOptions(CLI::App& command, Words& words) {
  command.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
  Tavi::CommandLine::AddConfigOptions(command, words,
                                      "Settings, a JSON file (upload.md in docs/ or /usr/share/doc/tavi-upload/)");
}

int Complain(int status, const std::string& sentence) {
  std::cerr << "tavi-upload: " << sentence << "\n";
  return status;
}

int Upload(const UploadSettings& settings, const StopSignal& stop, bool once) {
  std::string problem;
  Uploader uploader(settings, stop);
  if (!uploader.Open(problem)) return Complain(FailureStatus, problem);
  const bool isDone = uploader.Run(once);
  Kbase::Klog::Logger::GetInstance().Flush();
  return isDone ? DoneStatus : FailureStatus;
}

int Obey(const Words& words, const StopSignal& stop, bool once) {
  UploadSettings settings;
  std::string problem;
  if (!words.config.empty() && !LoadSettings(words.config, settings, problem)) return Complain(UsageStatus, problem);
  // Who has no remote yet begins with what is printed.
  if (!words.printConfig) problem = CheckSettings(settings);
  if (!problem.empty()) return Complain(UsageStatus, problem);
  if (Tavi::CommandLine::AnswerConfig(words, FormatSettings(settings), std::cout)) return DoneStatus;
  return Upload(settings, stop, once);
}

}  // namespace

int main(int argc, char** argv) try {
  const StopSignal stop;
  CLI::App app("Sends complete, verified events to where the fleet keeps them, through rclone.", "tavi-upload");
  Words words;
  app.set_version_flag("--version", "tavi-upload " TAVI_VERSION);
  app.require_subcommand(1);
  CLI::App* run = app.add_subcommand("run", "Sends events as they come, until it is told to end (SIGINT, SIGTERM)");
  CLI::App* once = app.add_subcommand("once", "Sends what there is, and ends: 1 when something is left over");
  AddOptions(*run, words);
  AddOptions(*once, words);
  try {
    Tavi::CommandLine::Parse(app, argc, argv);
  } catch (const CLI::Success& done) {
    return app.exit(done, std::cout, std::cerr);
  } catch (const CLI::ParseError& error) {
    return Complain(UsageStatus, error.what());
  }
  return Obey(words, stop, once->parsed());
} catch (const std::exception& error) {
  return Complain(FailureStatus, error.what());
}
