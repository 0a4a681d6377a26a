// The SHA-256 of bytes that come in parts.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

struct evp_md_ctx_st;

namespace Tavi::EventStore {

/// Of one content; thread-bound.
class Sha256 {
 public:
  Sha256();

  /// False when the library refuses, for want of memory or of the algorithm.
  [[nodiscard]] bool Add(const void* bytes, std::size_t size);
  /// 64 lower-case hexadecimal digits, to be asked for once; empty when the library refuses.
  [[nodiscard]] std::string Finish();

 private:
  struct Free {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, Free> m_context;
};

}  // namespace Tavi::EventStore
