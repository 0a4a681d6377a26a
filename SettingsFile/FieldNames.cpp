// The names of the settings as a tree: records, the fields in them, and the nearest to a wrong one.
#include "SettingsFile/FieldNames.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <numeric>
#include <utility>

namespace Tavi::SettingsFile {
namespace {

/// More mistakes in a name, and it is another one.
constexpr int MostMistakes = 2;
constexpr std::size_t LongestCompared = 64;

std::vector<std::string> ListNames(const std::vector<Field>& fields, const std::string& record) {
  const std::string prefix = record.empty() ? "" : record + ".";
  std::vector<std::string> names;
  for (const auto& field : fields) {
    if (!field.GetName().starts_with(prefix)) continue;
    std::string name = field.GetName().substr(prefix.size());
    name.erase(std::min(name.find('.'), name.size()));
    if (std::ranges::find(names, name) == names.end()) names.push_back(std::move(name));
  }
  return names;
}

int ToLower(char c) {
  return std::tolower(static_cast<unsigned char>(c));
}

/// Letters to be put in, left out or replaced (Levenshtein), whatever their case.
int CountMistakes(std::string_view from, std::string_view to) {
  std::vector<int> row(to.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < from.size(); ++i) {
    int diagonal = std::exchange(row[0], static_cast<int>(i) + 1);
    for (std::size_t j = 0; j < to.size(); ++j) {
      const int replaced = diagonal + (ToLower(from[i]) != ToLower(to[j]) ? 1 : 0);
      diagonal = row[j + 1];
      row[j + 1] = std::min({replaced, row[j] + 1, diagonal + 1});
    }
  }
  return row.back();
}

/// The full name of a field or record called `key` anywhere; empty when there is none.
std::string FindElsewhere(const std::vector<Field>& fields, const std::string& key) {
  for (const auto& field : fields) {
    const std::string name = "." + field.GetName() + ".";
    const auto at = name.find("." + key + ".");
    if (!key.empty() && at != std::string::npos) return field.GetName().substr(0, at + key.size());
  }
  return {};
}

}  // namespace

const Field* FindField(const std::vector<Field>& fields, std::string_view name) {
  const auto found = std::ranges::find(fields, name, &Field::GetName);
  return found != fields.end() ? &*found : nullptr;
}

bool IsRecord(const std::vector<Field>& fields, std::string_view name) {
  return std::ranges::any_of(fields, [name](const Field& field) {
    const std::string_view whole = field.GetName();
    return whole.size() > name.size() && whole.starts_with(name) && whole[name.size()] == '.';
  });
}

std::string DescribeNearest(const std::vector<Field>& fields, const std::string& record, const std::string& key) {
  const auto names = ListNames(fields, record);
  const std::string all = fmt::format("known here are {}", fmt::join(names, ", "));
  if (key.size() > LongestCompared) return "unknown, " + all;
  if (const std::string elsewhere = FindElsewhere(fields, key); !elsewhere.empty()) {
    return fmt::format("unknown here, there is {}; {}", elsewhere, all);
  }
  const auto mistakes = [&key](const std::string& name) { return CountMistakes(key, name); };
  const auto nearest = std::ranges::min_element(names, {}, mistakes);
  const bool isNear = nearest != names.end() && mistakes(*nearest) <= MostMistakes;
  return "unknown, " + (isNear ? "the nearest name is " + *nearest : all);
}

}  // namespace Tavi::SettingsFile
