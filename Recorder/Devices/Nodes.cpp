// Names of device nodes.
#include "Recorder/Devices/Nodes.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <map>

namespace Tavi::Recorder::Devices {

int GetNumber(const std::string& node) {
  const auto digits = node.find_last_not_of("0123456789") + 1;
  int number = -1;
  std::from_chars(node.data() + digits, node.data() + node.size(), number);
  return number;
}

std::vector<std::string> ListNodes(const std::string& root, const std::vector<std::string>& prefixes) {
  std::error_code ignored;
  std::vector<std::string> nodes;
  for (const std::string& prefix : prefixes) {
    std::map<int, std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(root + "/dev", ignored)) {
      const std::string name = entry.path().filename();
      const int number = GetNumber(name);
      if (number >= 0 && name == prefix + std::to_string(number)) found[number] = "/dev/" + name;
    }
    for (const auto& [number, node] : found) nodes.push_back(node);
  }
  return nodes;
}

}  // namespace Tavi::Recorder::Devices
