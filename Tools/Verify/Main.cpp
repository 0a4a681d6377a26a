// tavi-verify: whether events are what the unit wrote.
#include <fmt/format.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <filesystem>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "Control/CommandLine.h"
#include "EventStore/EventDescription.h"
#include "EventStore/EventList.h"
#include "EventStore/Identity.h"
#include "EventStore/Verify.h"

namespace {

using namespace Tavi::EventStore;
namespace fs = std::filesystem;

constexpr int IntactStatus = 0;
constexpr int DamagedStatus = 1;
constexpr int UsageStatus = 2;

struct Options {
  std::vector<std::string> keyFiles;
  std::vector<std::string> directories;
};

void Say(const std::string& directory, const std::string& sentence) {
  std::cout << directory << ": " << sentence << "\n";
}

std::string DescribeSigner(const std::string& publicKey, bool isCompared) {
  return fmt::format("signed by {}{}", publicKey, isCompared ? "" : ", which was compared with no key (--key)");
}

bool VerifyEvent(const std::string& directory, const std::set<std::string>& trusted) {
  const EventCheck check = CheckEvent(directory, trusted);
  for (const auto& finding : check.findings) Say(directory, finding);
  for (const auto& finding : check.added) Say(directory, finding);
  if (!check.findings.empty() || !check.added.empty()) return false;
  if (check.publicKey.empty()) {
    Say(directory, "as described, but not signed: whoever changed a file could have changed the description, too");
    return false;
  }
  Say(directory, "intact, " + DescribeSigner(check.publicKey, !trusted.empty()));
  return true;
}

/// A directory of events: each of them, and whether one is missing.
bool VerifyAll(const std::string& directory, const std::set<std::string>& trusted) {
  bool isIntact = true;
  const auto events = ListEvents(directory);
  for (const auto& event : events)
    isIntact = VerifyEvent((fs::path(directory) / event.name).string(), trusted) && isIntact;
  const ChainCheck chain = CheckChain(directory, trusted);
  for (const auto& finding : chain.findings) Say(directory, finding);
  isIntact = isIntact && chain.findings.empty();
  const std::string onRequest =
      chain.removedOnRequest == 0 ? "" : fmt::format(" ({} because somebody asked for it)", chain.removedOnRequest);
  Say(directory,
      fmt::format("{} event{}, {} removed by the recorder{}, {}", events.size(), events.size() == 1 ? "" : "s",
                  chain.removed, onRequest, chain.findings.empty() ? "none missing" : "the chain is broken"));
  return isIntact;
}

bool Verify(std::string directory, const std::set<std::string>& trusted) {
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  std::error_code ignored;
  const bool isEvent = fs::exists(fs::path(directory) / EventJsonName, ignored) || ListEvents(directory).empty();
  return isEvent ? VerifyEvent(directory, trusted) : VerifyAll(directory, trusted);
}

/// What is wrong with the command line, empty when `trusted` holds its keys.
std::string ReadOptions(const Options& options, std::set<std::string>& trusted) {
  for (const auto& file : options.keyFiles) {
    std::string problem;
    const auto key = ReadPublicKey(file, problem);
    if (!key) return "--key: " + problem;
    trusted.insert(*key);
  }
  std::error_code ignored;
  for (const auto& directory : options.directories) {
    if (fs::is_directory(directory, ignored)) continue;
    return fmt::format("EVENT_DIR: \"{}\" is no directory; give that of an event, or of all events", directory);
  }
  return {};
}

}  // namespace

int main(int argc, char** argv) try {
  CLI::App app(
      "Says of each event whether it is what the unit wrote: the files against their hashes, the description against "
      "its "
      "signature, and of a directory of events whether one was taken away.",
      "tavi-verify");
  Options options;
  app.set_version_flag("--version", "tavi-verify " TAVI_VERSION);
  app.add_option("--key", options.keyFiles, "The unit's public key, as tavi-ctl identity prints it; may be given again")
      ->allow_extra_args(false);
  app.add_option("EVENT_DIR", options.directories, "Directory of an event, or of all events")->required();
  std::set<std::string> trusted;
  std::string problem;
  try {
    Tavi::CommandLine::Parse(app, argc, argv);
    problem = ReadOptions(options, trusted);
  } catch (const CLI::Success& done) {
    return app.exit(done, std::cout, std::cerr);
  } catch (const CLI::ParseError& error) {
    problem = error.what();
  }
  if (!problem.empty()) {
    std::cerr << "tavi-verify: " << problem << "\n";
    return UsageStatus;
  }
  bool isIntact = true;
  for (const auto& directory : options.directories) isIntact = Verify(directory, trusted) && isIntact;
  return isIntact ? IntactStatus : DamagedStatus;
} catch (const std::exception& error) {
  std::cerr << "tavi-verify: " << error.what() << "\n";
  return DamagedStatus;
}
