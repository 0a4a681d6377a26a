// What a decoder has to know before a camera's first picture, and how the pictures are framed.
#include "Tavi/Video/StreamSetup.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <optional>

#include "KMedia/H264/AnnexB.h"
#include "Ksystem/FileUtils/Kfile.h"

namespace Tavi::Video {

using GstUtil::GstRef;
using KMedia::H264::Bytes;
using KMedia::H264::NalType;

namespace {

/// Parameter sets stand before the first slice. They and what else stands there take far less; a byte stream's slice is
/// not looked through for its end.
constexpr std::size_t HeadBytes = 4096;
constexpr std::uint8_t NalTypeMask = 0x1F;
constexpr std::array<std::uint8_t, 4> StartCode{0, 0, 0, 1};

/// Takes big-endian numbers and runs of bytes off the front; empty once there are too few.
class Reader {
 public:
  explicit Reader(Bytes bytes) : m_rest(bytes) {}

  std::optional<Bytes> Take(std::size_t count) {
    if (count > m_rest.size()) return {};
    const Bytes taken = m_rest.first(count);
    m_rest = m_rest.subspan(count);
    return taken;
  }
  std::optional<std::size_t> TakeNumber(std::size_t count) {
    const auto bytes = Take(count);
    if (!bytes) return {};
    std::size_t number = 0;
    for (const std::uint8_t byte : *bytes) number = number << 8U | byte;
    return number;
  }
  [[nodiscard]] bool IsAtEnd() const { return m_rest.empty(); }

 private:
  Bytes m_rest;
};

NalType GetType(Bytes nal) {
  return static_cast<NalType>(nal.empty() ? 0 : nal.front() & NalTypeMask);
}

/// Calls `take` with each NAL unit (without start code or length) until it says false. True when all were whole.
template <class Take>
bool ForEachNal(Bytes bytes, unsigned int lengthSize, const Take& take) {
  if (lengthSize == 0) {
    KMedia::H264::NalUnit unit;
    for (std::size_t offset = 0; KMedia::H264::NextNalUnit(bytes, offset, unit);) {
      if (!take(unit.payload)) return true;
    }
    return true;
  }
  Reader reader(bytes);
  while (!reader.IsAtEnd()) {
    const auto length = reader.TakeNumber(lengthSize);
    const auto nal = length ? reader.Take(*length) : std::nullopt;
    if (!nal) return false;
    if (!take(*nal)) return true;
  }
  return true;
}

void AppendNal(std::vector<std::uint8_t>& sets, Bytes nal) {
  sets.insert(sets.end(), StartCode.begin(), StartCode.end());
  sets.insert(sets.end(), nal.begin(), nal.end());
}

/// The parameter sets before the first slice as a byte stream; empty unless there are both kinds.
std::vector<std::uint8_t> GatherParameterSets(Bytes bytes, unsigned int lengthSize) {
  std::vector<std::uint8_t> sets;
  bool hasSequence = false;
  bool hasPicture = false;
  const Bytes head = lengthSize == 0 ? bytes.first(std::min(bytes.size(), HeadBytes)) : bytes;
  ForEachNal(head, lengthSize, [&](Bytes nal) {
    const NalType type = GetType(nal);
    if (type == NalType::Slice || type == NalType::IdrSlice) return false;
    if (type == NalType::Sps || type == NalType::Pps) AppendNal(sets, nal);
    hasSequence = hasSequence || type == NalType::Sps;
    hasPicture = hasPicture || type == NalType::Pps;
    return true;
  });
  if (!hasSequence || !hasPicture) sets.clear();
  return sets;
}

/// An AVCDecoderConfigurationRecord (ISO/IEC 14496-15, 5.3.3.1): six bytes with the length's size and the number of
/// sequence parameter sets, these, the number of picture parameter sets, and these, each behind two bytes of length.
std::optional<StreamSetup> ParseConfigurationRecord(Bytes record) {
  constexpr std::size_t Fixed = 4;
  constexpr std::size_t SequenceCountMask = 0x1F;
  Reader reader(record);
  const auto version = reader.TakeNumber(1);
  if (!version || *version != 1 || !reader.Take(Fixed - 1)) return {};
  const auto lengthSize = reader.TakeNumber(1);
  if (!lengthSize) return {};
  StreamSetup setup{{}, static_cast<unsigned int>(*lengthSize & 3U) + 1};
  for (const std::size_t mask : {SequenceCountMask, std::size_t{0xFF}}) {
    const auto count = reader.TakeNumber(1);
    if (!count) return {};
    for (std::size_t i = 0; i < (*count & mask); ++i) {
      const auto length = reader.TakeNumber(2);
      const auto nal = length ? reader.Take(*length) : std::nullopt;
      if (!nal) return {};
      AppendNal(setup.parameterSets, *nal);
    }
  }
  return setup;
}

std::optional<StreamSetup> ParseCodecData(const GstStructure* format, Bytes data) {
  const char* framing = gst_structure_get_string(format, "stream-format");
  const bool isByteStream = framing == nullptr || std::strcmp(framing, "byte-stream") == 0;
  if (!isByteStream) return ParseConfigurationRecord(data);
  auto sets = GatherParameterSets(data, 0);
  if (sets.empty()) return {};
  return StreamSetup{std::move(sets), 0};
}

/// A read mapping of a buffer while it lives; empty where it cannot be mapped.
class Mapping {
 public:
  explicit Mapping(GstBuffer* buffer) : m_buffer(buffer) {
    m_mapped = buffer != nullptr && gst_buffer_map(buffer, &m_map, GST_MAP_READ) == TRUE;
  }
  ~Mapping() {
    if (m_mapped) gst_buffer_unmap(m_buffer, &m_map);
  }
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  [[nodiscard]] Bytes Get() const { return m_mapped ? Bytes(m_map.data, m_map.size) : Bytes(); }

 private:
  GstBuffer* const m_buffer;
  GstMapInfo m_map{};
  bool m_mapped = false;
};

}  // namespace

void SetupTracker::TakeCaps(GstCaps* caps) {
  if (caps == nullptr || caps == m_caps.Get()) return;
  m_caps = GstRef<GstCaps>::Share(caps);
  const GstStructure* format = gst_caps_get_structure(caps, 0);
  const GValue* data = format != nullptr ? gst_structure_get_value(format, "codec_data") : nullptr;
  if (m_setup && m_setup->lengthSize != 0) m_setup.reset();
  if (data == nullptr || !GST_VALUE_HOLDS_BUFFER(data)) return;
  const Mapping mapping(gst_value_get_buffer(data));
  if (auto setup = ParseCodecData(format, mapping.Get())) {
    m_setup = std::make_shared<const StreamSetup>(std::move(*setup));
  }
}

std::shared_ptr<const StreamSetup> SetupTracker::Follow(GstBuffer* accessUnit) {
  if (GST_BUFFER_FLAG_IS_SET(accessUnit, GST_BUFFER_FLAG_DELTA_UNIT)) return m_setup;
  const unsigned int lengthSize = m_setup ? m_setup->lengthSize : 0;
  const Mapping mapping(accessUnit);
  auto sets = GatherParameterSets(mapping.Get(), lengthSize);
  if (!sets.empty() && (!m_setup || m_setup->parameterSets != sets)) {
    m_setup = std::make_shared<const StreamSetup>(StreamSetup{std::move(sets), lengthSize});
  }
  return m_setup;
}

bool HasParameterSets(std::span<const std::uint8_t> accessUnit, unsigned int lengthSize) {
  return !GatherParameterSets(accessUnit, lengthSize).empty();
}

std::vector<Bytes> SplitByLengths(Bytes accessUnit, unsigned int lengthSize) {
  std::vector<Bytes> nals;
  const bool isWhole = ForEachNal(accessUnit, lengthSize, [&nals](Bytes nal) {
    nals.push_back(nal);
    return true;
  });
  if (!isWhole) nals.clear();
  return nals;
}

bool WriteAccessUnit(FILE* file, std::span<const std::uint8_t> accessUnit, unsigned int lengthSize) {
  using Ksystem::FileUtils::Kfile;
  if (lengthSize == 0) return Kfile::Write(accessUnit.data(), accessUnit.size(), file);
  bool isWritten = true;
  const bool isWhole = ForEachNal(accessUnit, lengthSize, [&](Bytes nal) {
    isWritten = Kfile::Write(StartCode.data(), StartCode.size(), file) && Kfile::Write(nal.data(), nal.size(), file);
    return isWritten;
  });
  return isWhole && isWritten;
}

}  // namespace Tavi::Video
