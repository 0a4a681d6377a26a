// The unit's own key.
#include "EventStore/Identity.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

#include "EventStore/Storage.h"
#include "Ksystem/FileUtils/Kdir.h"

namespace Tavi::EventStore {
namespace {

constexpr std::size_t MaxPemBytes = 4096;
constexpr std::size_t KeyBytes = 32;        // RFC 8032, 5.1.5
constexpr std::size_t SignatureBytes = 64;  // 5.1.6
constexpr mode_t OwnerOnly = 0600;
constexpr std::string_view HexDigits = "0123456789abcdef";

struct FreeBio {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct FreeContext {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using Bio = std::unique_ptr<BIO, FreeBio>;
using Context = std::unique_ptr<EVP_MD_CTX, FreeContext>;

const unsigned char* Bytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::shared_ptr<EVP_PKEY> Own(EVP_PKEY* key) {
  return {key, EVP_PKEY_free};
}

std::string TakeText(BIO* bio) {
  char* text = nullptr;
  const long size = BIO_get_mem_data(bio, &text);
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

/// Empty for a key of another kind.
std::string GetRawPublic(const EVP_PKEY* key) {
  std::string raw(KeyBytes, '\0');
  std::size_t size = raw.size();
  const bool isRead = key != nullptr && EVP_PKEY_get_id(key) == EVP_PKEY_ED25519 &&
                      EVP_PKEY_get_raw_public_key(key, reinterpret_cast<unsigned char*>(raw.data()), &size) == 1;
  return isRead && size == KeyBytes ? ToHex(raw) : "";
}

/// Under its name only when all of it is on the disk: half a key would keep the unit from ever having one.
bool WriteKey(const std::string& path, const std::string& pem, std::string& problem) {
  const std::string aside = path + ".new";
  ::unlink(aside.c_str());
  {
    Ksystem::FileUtils::UniqueFd file(
        ::open(aside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, OwnerOnly));
    if (!file.IsValid() || !WriteAll(file.Get(), pem.data(), pem.size()) || ::fsync(file.Get()) != 0 || !file.Close()) {
      return Fail("write the unit's key", aside, problem);
    }
  }
  return Rename(aside, path, problem) && SyncDirectory(Ksystem::FileUtils::Kdir::GetParentOf(path), problem);
}

}  // namespace

Identity::Identity(Key key) : m_key(std::move(key)), m_publicKey(GetRawPublic(m_key.get())) {}

Identity::Key Identity::ReadKey(const std::string& path, std::string& problem) {
  std::string pem;
  if (!ReadSmallFile(path, MaxPemBytes, pem, problem)) return nullptr;
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  Key key = bio ? Own(PEM_read_bio_PrivateKey(bio.get(), nullptr, nullptr, nullptr)) : nullptr;
  if (!GetRawPublic(key.get()).empty()) return key;
  problem = fmt::format("{} holds no Ed25519 key; give one in PEM, or move it away to have one made", path);
  return nullptr;
}

Identity::Key Identity::MakeKey(const std::string& path, std::string& problem) {
  Key key = Own(EVP_PKEY_Q_keygen(nullptr, nullptr, "ED25519"));
  const Bio bio(BIO_new(BIO_s_mem()));
  const bool isText =
      key && bio && PEM_write_bio_PKCS8PrivateKey(bio.get(), key.get(), nullptr, nullptr, 0, nullptr, nullptr) == 1;
  if (!isText) problem = "the system's library makes no Ed25519 key";
  return isText && WriteKey(path, TakeText(bio.get()), problem) ? key : nullptr;
}

std::optional<Identity> Identity::LoadOrMake(const std::string& path, std::string& problem) {
  struct stat status {};
  const bool isThere = ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
  Key key = isThere ? ReadKey(path, problem) : MakeKey(path, problem);
  if (!key) return std::nullopt;
  return Identity(std::move(key));
}

std::string Identity::Sign(std::string_view text) const {
  std::string signature(SignatureBytes, '\0');
  std::size_t size = signature.size();
  const Context context(EVP_MD_CTX_new());
  const bool isSigned = context && EVP_DigestSignInit(context.get(), nullptr, nullptr, nullptr, m_key.get()) == 1 &&
                        EVP_DigestSign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                                       Bytes(text), text.size()) == 1;
  return isSigned && size == SignatureBytes ? signature : std::string();
}

std::string Identity::GetPublicPem() const {
  const Bio bio(BIO_new(BIO_s_mem()));
  return bio && PEM_write_bio_PUBKEY(bio.get(), m_key.get()) == 1 ? TakeText(bio.get()) : std::string();
}

bool IsSignedBy(const std::string& publicKey, std::string_view text, std::string_view signature) {
  const std::string raw = FromHex(publicKey);
  if (raw.size() != KeyBytes || signature.size() != SignatureBytes) return false;
  const auto key = Own(EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, Bytes(raw), raw.size()));
  const Context context(EVP_MD_CTX_new());
  return key && context && EVP_DigestVerifyInit(context.get(), nullptr, nullptr, nullptr, key.get()) == 1 &&
         EVP_DigestVerify(context.get(), Bytes(signature), signature.size(), Bytes(text), text.size()) == 1;
}

std::optional<std::string> ReadPublicKey(const std::string& path, std::string& problem) {
  std::string pem;
  if (!ReadSmallFile(path, MaxPemBytes, pem, problem)) return std::nullopt;
  const Bio bio(BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())));
  const auto key = bio ? Own(PEM_read_bio_PUBKEY(bio.get(), nullptr, nullptr, nullptr)) : nullptr;
  std::string publicKey = GetRawPublic(key.get());
  if (!publicKey.empty()) return publicKey;
  problem = fmt::format("{} holds no public Ed25519 key; give what tavi-ctl identity prints", path);
  return std::nullopt;
}

std::string ToHex(std::string_view bytes) {
  std::string digits;
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    digits += HexDigits[byte >> 4U];
    digits += HexDigits[byte & 0xFU];
  }
  return digits;
}

std::string FromHex(std::string_view digits) {
  if (digits.size() % 2 != 0) return {};
  std::string bytes;
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const auto high = HexDigits.find(digits[i]);
    const auto low = HexDigits.find(digits[i + 1]);
    if (high == std::string_view::npos || low == std::string_view::npos) return {};
    bytes += static_cast<char>(high * 16 + low);
  }
  return bytes;
}

}  // namespace Tavi::EventStore
