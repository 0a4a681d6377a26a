// An event as one file for whoever takes it away: a ZIP archive, made while it is sent.
#pragma once

#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "Fleet/Web/Http.h"

struct archive;
struct archive_entry;

namespace Tavi::Web {

/// Entries are stored, not compressed: media cannot be made smaller. Holds one block at a time. A file that cannot be
/// read to its end cuts the answer off, so that nobody takes a part for the whole.
class ArchiveBody final : public BodySource {
 public:
  explicit ArchiveBody(std::int64_t modifiedSeconds);
  ~ArchiveBody() override;
  ArchiveBody(const ArchiveBody&) = delete;
  ArchiveBody& operator=(const ArchiveBody&) = delete;

  /// To be called before the first Read, in the order in which they are to stand; `name` with "/" between levels.
  void Add(std::string name, FileBody file);
  void Add(std::string name, std::string text);

  std::optional<std::size_t> Read(char* buffer, std::size_t size) override;

 private:
  struct Item {
    std::string name;
    std::optional<FileBody> file;
    std::string text;
  };
  struct Calls;
  friend struct Calls;

  /// Makes at least one more piece of the archive; false when that fails.
  bool Proceed();
  bool Begin(const Item& item);
  bool Continue(Item& item);

  const std::int64_t m_modifiedSeconds;
  archive* m_archive = nullptr;
  std::deque<Item> m_items;
  /// What has been made and not yet sent.
  std::string m_made;
  std::uint64_t m_left = 0;
  bool m_isWithin = false;
  bool m_isClosed = false;
};

}  // namespace Tavi::Web
