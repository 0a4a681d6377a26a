// The machine's groups.
#include "Ksystem/SysUtil/Group.h"

#include <grp.h>

#include <cerrno>
#include <vector>

namespace Ksystem::SysUtil {
namespace {

/// A group with all its members; one of a thousand members has some 10 KiB.
constexpr std::size_t FirstSize = std::size_t{4} << 10;
constexpr std::size_t LargestSize = std::size_t{4} << 20;

}  // namespace

std::optional<gid_t> FindGroup(const std::string& name) {
  for (std::size_t size = FirstSize; size <= LargestSize; size *= 4) {
    std::vector<char> text(size);
    group entry{};
    group* found = nullptr;
    const int error = ::getgrnam_r(name.c_str(), &entry, text.data(), text.size(), &found);
    if (error == ERANGE) continue;
    return error == 0 && found != nullptr ? std::make_optional(found->gr_gid) : std::nullopt;
  }
  return std::nullopt;
}

}  // namespace Ksystem::SysUtil
