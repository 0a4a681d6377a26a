// A small file that is there whole or as it was.
#pragma once

#include <sys/types.h>

#include <string>
#include <string_view>

namespace Tavi::Upload {

/// Written aside, synced, renamed. False, with one sentence in `problem`, on failure. Reentrant.
[[nodiscard]] bool WriteWholeFile(const std::string& path, std::string_view text, mode_t mode, std::string& problem);

}  // namespace Tavi::Upload
