// The unit's own key: what it signs, nobody else can have written.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct evp_pkey_st;

namespace Tavi::EventStore {

/// An Ed25519 key (RFC 8032) in a file of PEM (PKCS #8), by libcrypto. Immutable, so thread-safe.
class Identity {
 public:
  /// Reads the key of `path`, or makes one there, 0600 and synced, where there is no file. Empty, with one sentence in
  /// `problem`, when it can be neither; a file that holds something else stays as it is.
  static std::optional<Identity> LoadOrMake(const std::string& path, std::string& problem);

  /// 64 bytes; empty when the library refuses, for want of memory.
  [[nodiscard]] std::string Sign(std::string_view text) const;
  /// 64 lower-case hex digits.
  [[nodiscard]] const std::string& GetPublicKey() const { return m_publicKey; }
  /// PEM (SubjectPublicKeyInfo), with a line feed at its end.
  [[nodiscard]] std::string GetPublicPem() const;

 private:
  using Key = std::shared_ptr<evp_pkey_st>;

  explicit Identity(Key key);
  static Key ReadKey(const std::string& path, std::string& problem);
  static Key MakeKey(const std::string& path, std::string& problem);

  Key m_key;
  std::string m_publicKey;
};

/// Whether `signature`, 64 bytes, is that of `text` by the key of 64 hex digits.
bool IsSignedBy(const std::string& publicKey, std::string_view text, std::string_view signature);

/// The public key of a PEM file as `tavi-ctl identity` prints it, as 64 hex digits. Empty, with one sentence in
/// `problem`, when it holds none.
std::optional<std::string> ReadPublicKey(const std::string& path, std::string& problem);

/// Lower-case hex digits of the bytes, and back; empty when the text is anything else.
std::string ToHex(std::string_view bytes);
std::string FromHex(std::string_view digits);

}  // namespace Tavi::EventStore
