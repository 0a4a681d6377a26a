// The hashes by which a far side tells what it has.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Tavi::Upload {

/// What far sides offer, the best first.
enum class HashType { Sha256, Sha1, Md5 };

/// As rclone calls it: "sha256", "sha1", "md5".
std::string_view GetName(HashType type);
/// Whether the text is such a hash in lower-case hex digits: a far side that has none says so in words, or with
/// nothing.
bool IsHash(HashType type, std::string_view text);

struct ContentHashes {
  std::uint64_t bytes = 0;
  /// 64 lower-case hex digits.
  std::string sha256;
  /// By the other type, of the same bytes in the same reading; of Sha256 the same text once more.
  std::string far;
};

/// Reads a regular file once. Empty, with one sentence in `problem`, when it cannot be read. Blocks; reentrant.
std::optional<ContentHashes> HashFile(const std::string& path, HashType far, std::string& problem);
/// Of a text; empty where the library refuses.
std::string HashText(std::string_view text, HashType type);

}  // namespace Tavi::Upload
