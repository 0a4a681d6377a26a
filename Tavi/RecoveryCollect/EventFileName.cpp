// The names that the files of an interrupted event bear, put together and taken apart.
#include "Tavi/RecoveryCollect/EventFileName.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <ctime>
#include <string_view>

#include "Kbase/Util/Naming.h"
#include "Ksystem/FileUtils/AsideFile.h"
#include "Tavi/PipelineCollect/CollectBase.h"
#include "Tavi/PipelineCollect/EntryTimes.h"

namespace Tavi::RecoveryCollect {
namespace {

using PipelineCollect::PipelineCollectType;

constexpr std::string_view HalfSuffix = Ksystem::FileUtils::AsideFile::Suffix;
/// "_20261121T071500Z", as Kbase::Util::BuildEventFileName appends it.
constexpr std::size_t StampLength = 17;

struct Affixes {
  std::string prefix;
  std::string extension;
};

Affixes GetBackupAffixes(PipelineCollectType type) {
  Affixes affixes;
  PipelineCollect::CollectBase::GetPipelineCollectPrefixAndExtension(type, affixes.prefix, affixes.extension);
  return affixes;
}

Affixes GetProductAffixes(PipelineCollectType type) {
  Affixes affixes = GetBackupAffixes(type);
  if (IsCameraVideo(type)) affixes.extension = ".mp4";
  return affixes;
}

std::optional<EventFileName> Parse(std::string_view fileName, Affixes (*getAffixes)(PipelineCollectType)) {
  for (auto value = PipelineCollectType::VideoCamera1; value <= PipelineCollectType::Preview;
       value = static_cast<PipelineCollectType>(static_cast<int>(value) + 1)) {
    const Affixes affixes = getAffixes(value);
    const std::size_t around = affixes.prefix.size() + affixes.extension.size();
    if (fileName.size() <= around || !fileName.starts_with(affixes.prefix) || !fileName.ends_with(affixes.extension)) {
      continue;
    }
    return EventFileName{value, std::string(fileName.substr(affixes.prefix.size(), fileName.size() - around)), false,
                         false, false};
  }
  return std::nullopt;
}

/// True when that stood at the end of `name`, which it is taken off.
bool TakeOff(std::string_view& name, std::string_view suffix) {
  if (!name.ends_with(suffix)) return false;
  name.remove_suffix(suffix.size());
  return true;
}

}  // namespace

bool IsCameraVideo(PipelineCollectType type) {
  return type == PipelineCollectType::VideoCamera0 || type == PipelineCollectType::VideoCamera1;
}

std::optional<EventFileName> ParseBackupName(const std::string& fileName) {
  std::string_view name = fileName;
  const bool isHalf = TakeOff(name, HalfSuffix);
  const bool isTimes = TakeOff(name, PipelineCollect::TimesSuffix);
  auto parsed = Parse(name, GetBackupAffixes);
  const bool isMuxed = !parsed;
  if (isMuxed) parsed = Parse(name, GetProductAffixes);
  if (!parsed) return std::nullopt;
  parsed->isHalf = isHalf;
  parsed->isMuxed = isMuxed;
  parsed->isTimes = isTimes;
  return parsed;
}

std::optional<EventFileName> ParseProductName(const std::string& fileName) {
  std::string_view name = fileName;
  const bool isTimes = TakeOff(name, PipelineCollect::TimesSuffix);
  auto parsed = Parse(name, GetProductAffixes);
  if (parsed) parsed->isTimes = isTimes;
  return parsed;
}

std::string BuildBackupName(const EventFileName& file, const std::string& event) {
  const Affixes affixes = file.isMuxed ? GetProductAffixes(file.type) : GetBackupAffixes(file.type);
  return affixes.prefix + event + affixes.extension;
}

std::string BuildProductName(PipelineCollectType type, const std::string& event) {
  const Affixes affixes = GetProductAffixes(type);
  return affixes.prefix + event + affixes.extension;
}

std::optional<EventTime> ParseEventTime(const std::string& event) {
  const std::size_t stampEnd = event.rfind('_');
  if (stampEnd == std::string::npos || stampEnd < StampLength) return std::nullopt;
  const std::string stamp = event.substr(stampEnd - StampLength, StampLength);
  std::tm utc{};
  ::strptime(stamp.c_str(), "_%Y%m%dT%H%M%SZ", &utc);
  EventTime result;
  result.time = ::timegm(&utc);
  // Written again it must be the same: no such thing as a 31st of February.
  if (Kbase::Util::BuildEventFileName("", result.time) != stamp) return std::nullopt;
  const char* end = event.data() + event.size();
  const auto [stop, error] = std::from_chars(event.data() + stampEnd + 1, end, result.seconds);
  return error == std::errc() && stop == end ? std::optional(result) : std::nullopt;
}

bool IsUid(const std::string& event) {
  constexpr std::string_view Form = "00000000-0000-0000-0000-000000000000";
  return std::ranges::equal(event, Form,
                            [](unsigned char c, char form) { return form == '-' ? c == '-' : std::isxdigit(c) != 0; });
}

}  // namespace Tavi::RecoveryCollect
