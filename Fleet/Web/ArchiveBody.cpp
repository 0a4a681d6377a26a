// An event as one file: a ZIP archive, made while it is sent.
#include "Fleet/Web/ArchiveBody.h"

#include <archive.h>
#include <archive_entry.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace Tavi::Web {
namespace {

constexpr std::size_t BlockBytes = 64 * 1024;
constexpr int FileMode = 0644;

using EntryPointer = std::unique_ptr<archive_entry, decltype(&archive_entry_free)>;

}  // namespace

struct ArchiveBody::Calls {
  static la_ssize_t Write(archive*, void* self, const void* bytes, size_t size) {
    static_cast<ArchiveBody*>(self)->m_made.append(static_cast<const char*>(bytes), size);
    return static_cast<la_ssize_t>(size);
  }
};

ArchiveBody::ArchiveBody(std::int64_t modifiedSeconds)
    : m_modifiedSeconds(modifiedSeconds), m_archive(archive_write_new()) {
  archive_write_set_format_zip(m_archive);
  archive_write_zip_set_compression_store(m_archive);
  archive_write_set_bytes_per_block(m_archive, 0);
  archive_write_open(m_archive, this, nullptr, &Calls::Write, nullptr);
}

ArchiveBody::~ArchiveBody() {
  archive_write_free(m_archive);
}

void ArchiveBody::Add(std::string name, FileBody file) {
  m_items.push_back({std::move(name), std::move(file), {}});
}

void ArchiveBody::Add(std::string name, std::string text) {
  m_items.push_back({std::move(name), std::nullopt, std::move(text)});
}

std::optional<std::size_t> ArchiveBody::Read(char* buffer, std::size_t size) {
  while (m_made.empty() && !m_isClosed) {
    if (!Proceed()) return std::nullopt;
  }
  const std::size_t given = std::min(size, m_made.size());
  std::memcpy(buffer, m_made.data(), given);
  m_made.erase(0, given);
  return given;
}

bool ArchiveBody::Proceed() {
  if (m_items.empty()) {
    m_isClosed = true;
    return archive_write_close(m_archive) == ARCHIVE_OK;
  }
  if (!m_isWithin) return Begin(m_items.front());
  if (m_left != 0) return Continue(m_items.front());
  m_items.pop_front();
  m_isWithin = false;
  return archive_write_finish_entry(m_archive) == ARCHIVE_OK;
}

bool ArchiveBody::Begin(const Item& item) {
  m_left = item.file ? item.file->size : item.text.size();
  m_isWithin = true;
  const EntryPointer entry(archive_entry_new(), &archive_entry_free);
  archive_entry_set_pathname(entry.get(), item.name.c_str());
  archive_entry_set_filetype(entry.get(), AE_IFREG);
  archive_entry_set_perm(entry.get(), FileMode);
  archive_entry_set_size(entry.get(), static_cast<la_int64_t>(m_left));
  archive_entry_set_mtime(entry.get(), static_cast<time_t>(m_modifiedSeconds), 0);
  return archive_write_header(m_archive, entry.get()) == ARCHIVE_OK;
}

bool ArchiveBody::Continue(Item& item) {
  std::array<char, BlockBytes> block;
  const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(m_left, block.size()));
  ssize_t got = 0;
  if (item.file) {
    do got = ::read(item.file->file.Get(), block.data(), wanted);
    while (got < 0 && errno == EINTR);
  } else {
    got = static_cast<ssize_t>(item.text.copy(block.data(), wanted, item.text.size() - m_left));
  }
  if (got <= 0 || archive_write_data(m_archive, block.data(), static_cast<std::size_t>(got)) != got) return false;
  m_left -= static_cast<std::uint64_t>(got);
  return true;
}

}  // namespace Tavi::Web
