// The hashes by which a far side tells what it has.
#include "Fleet/Upload/ContentHash.h"

#include <fmt/format.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "EventStore/Identity.h"
#include "EventStore/Storage.h"

namespace Tavi::Upload {
namespace {

constexpr std::size_t BlockBytes = std::size_t{256} << 10;

class Digest {
 public:
  explicit Digest(HashType type) : m_context(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
    const EVP_MD* kind = type == HashType::Sha256 ? EVP_sha256() : type == HashType::Sha1 ? EVP_sha1() : EVP_md5();
    m_isWell = m_context != nullptr && EVP_DigestInit_ex(m_context.get(), kind, nullptr) == 1;
  }
  void Add(const void* bytes, std::size_t size) {
    m_isWell = m_isWell && EVP_DigestUpdate(m_context.get(), bytes, size) == 1;
  }
  std::string Finish() {
    std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
    unsigned int size = 0;
    if (!m_isWell || EVP_DigestFinal_ex(m_context.get(), bytes.data(), &size) != 1) return {};
    return EventStore::ToHex({reinterpret_cast<const char*>(bytes.data()), size});
  }

 private:
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> m_context;
  bool m_isWell = false;
};

}  // namespace

std::string_view GetName(HashType type) {
  if (type == HashType::Sha256) return "sha256";
  return type == HashType::Sha1 ? "sha1" : "md5";
}

bool IsHash(HashType type, std::string_view text) {
  const std::size_t digits = type == HashType::Sha256 ? 64 : type == HashType::Sha1 ? 40 : 32;
  return text.size() == digits && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

std::optional<ContentHashes> HashFile(const std::string& path, HashType far, std::string& problem) {
  const auto file = EventStore::OpenRegularFile(path, problem);
  if (!file.IsValid()) return std::nullopt;
  Digest sha256(HashType::Sha256);
  Digest other(far);
  ContentHashes hashes;
  std::string block(BlockBytes, '\0');
  while (true) {
    const ssize_t got = ::read(file.Get(), block.data(), block.size());
    if (got == 0) break;
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      EventStore::Fail("read", path, problem);
      return std::nullopt;
    }
    hashes.bytes += static_cast<std::uint64_t>(got);
    sha256.Add(block.data(), static_cast<std::size_t>(got));
    if (far != HashType::Sha256) other.Add(block.data(), static_cast<std::size_t>(got));
  }
  hashes.sha256 = sha256.Finish();
  hashes.far = far == HashType::Sha256 ? hashes.sha256 : other.Finish();
  if (!hashes.sha256.empty() && !hashes.far.empty()) return hashes;
  problem = fmt::format("cannot hash {}: libcrypto refuses {}", path, GetName(far));
  return std::nullopt;
}

std::string HashText(std::string_view text, HashType type) {
  Digest digest(type);
  digest.Add(text.data(), text.size());
  return digest.Finish();
}

}  // namespace Tavi::Upload
