// What numbers and lengths may be.
#pragma once

namespace Tavi::SettingsFile {

/// Both ends are allowed.
template <class T>
struct Range {
  T low;
  T high;
};

/// PATH_MAX and the size of sun_path, without the NUL (limits.h, unix(7)).
inline constexpr Range<int> PathBytes{1, 4095};
inline constexpr Range<int> OptionalPathBytes{0, 4095};
inline constexpr Range<int> SocketPathBytes{1, 107};

}  // namespace Tavi::SettingsFile
