// tavi-report: a page that shows an event.
#include <exception>
#include <iostream>

#include "EventPage/PageHtml.h"
#include "Tools/Tool.h"

int main(int argc, char** argv) try {
  using namespace Tavi::EventTools;
  const ToolUsage usage{
      "tavi-report",
      "Writes one page that shows an event in any browser: its clips in step, track and measurements.",
      {},
      {}};
  ToolOptions options;
  options.output = "report.html";
  options.suffix = ".html";
  if (const auto status = ParseToolOptions(usage, argc, argv, options, [] { return std::string(); })) return *status;
  return RunTool(options, BuildPage);
} catch (const std::exception& error) {
  std::cerr << "tavi-report: " << error.what() << "\n";
  return Tavi::EventTools::FailureStatus;
}
