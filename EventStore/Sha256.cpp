// The SHA-256 of bytes that come in parts, by libcrypto: it has the processor's own instructions for it where there
// are.
#include "EventStore/Sha256.h"

#include <openssl/evp.h>

#include <array>

namespace Tavi::EventStore {

void Sha256::Free::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

Sha256::Sha256() : m_context(EVP_MD_CTX_new()) {
  if (m_context && EVP_DigestInit_ex(m_context.get(), EVP_sha256(), nullptr) != 1) m_context.reset();
}

bool Sha256::Add(const void* bytes, std::size_t size) {
  return m_context && EVP_DigestUpdate(m_context.get(), bytes, size) == 1;
}

std::string Sha256::Finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned int size = 0;
  if (!m_context || EVP_DigestFinal_ex(m_context.get(), digest.data(), &size) != 1) return {};
  constexpr const char* Digits = "0123456789abcdef";
  std::string text;
  for (unsigned int i = 0; i < size; ++i) {
    text += Digits[digest[i] >> 4U];
    text += Digits[digest[i] & 0xFU];
  }
  return text;
}

}  // namespace Tavi::EventStore
