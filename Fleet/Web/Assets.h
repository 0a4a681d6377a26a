// The console's pages, styles and scripts; the build takes them from the files of page/.
#pragma once

#include <span>
#include <string_view>

namespace Tavi::Web {

struct Asset {
  std::string_view name;
  std::string_view text;
};

extern const std::span<const Asset> Assets;

/// Null when there is none of that name.
const Asset* FindAsset(std::string_view name);
/// As a header has it, with the character set.
std::string_view GetAssetType(std::string_view name);

}  // namespace Tavi::Web
