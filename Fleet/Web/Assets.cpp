// The console's pages, styles and scripts.
#include "Fleet/Web/Assets.h"

#include <algorithm>

namespace Tavi::Web {

const Asset* FindAsset(std::string_view name) {
  const auto found = std::ranges::find(Assets, name, &Asset::name);
  return found == Assets.end() ? nullptr : &*found;
}

std::string_view GetAssetType(std::string_view name) {
  if (name.ends_with(".css")) return "text/css; charset=utf-8";
  return name.ends_with(".js") ? "text/javascript; charset=utf-8" : "text/html; charset=utf-8";
}

}  // namespace Tavi::Web
