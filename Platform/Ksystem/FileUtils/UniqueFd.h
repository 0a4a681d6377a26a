// The owner of one file descriptor.
#pragma once

#include <cstddef>
#include <string>
#include <utility>

namespace Ksystem::FileUtils {

/// Move-only; closes at destruction. Thread-bound.
class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  ~UniqueFd() { Close(); }
  UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept;
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  /// Opens close-on-exec; invalid, with errno set, when that fails. What it makes is no business of everybody.
  static UniqueFd Open(const std::string& path, int flags, unsigned int mode = 0640);

  [[nodiscard]] bool IsValid() const { return m_fd >= 0; }
  [[nodiscard]] int Get() const { return m_fd; }
  /// False, with errno set, when the system reports an error that writing had held back. Never retried: the descriptor
  /// is gone either way (close(2), Linux).
  bool Close();

 private:
  int m_fd = -1;
};

/// Writes all bytes, in however many parts the system takes them. False, with errno set, on failure.
[[nodiscard]] bool WriteAll(int fd, const void* data, std::size_t size);

}  // namespace Ksystem::FileUtils
