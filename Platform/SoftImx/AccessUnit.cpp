// What an H.264 access unit holds, as far as the grid of key frames goes, and frames that bear their camera's own.
#include "SoftImx/AccessUnit.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace SoftImx {
namespace {

using Bytes = std::span<const std::uint8_t>;

enum NalType : std::uint8_t { Slice = 1, IdrSlice = 5, Sps = 7, Pps = 8 };

/// Reads numbers off the front of a slice's header, which is too short for an emulation prevention byte to matter.
class BitReader {
 public:
  explicit BitReader(Bytes bytes) : m_bytes(bytes) {}

  /// An Exp-Golomb number (9.1); 0 at the end of the bytes.
  std::uint32_t TakeNumber() {
    unsigned zeros = 0;
    while (zeros < 31 && m_bit < 8 * m_bytes.size() && !TakeBit()) ++zeros;
    std::uint32_t rest = 0;
    for (unsigned i = 0; i < zeros; ++i) rest = rest << 1U | (TakeBit() ? 1U : 0U);
    return (1U << zeros) - 1 + rest;
  }

 private:
  bool TakeBit() {
    if (m_bit >= 8 * m_bytes.size()) return false;
    const bool bit = (m_bytes[m_bit / 8] >> (7 - m_bit % 8) & 1) != 0;
    ++m_bit;
    return bit;
  }

  Bytes m_bytes;
  std::size_t m_bit = 0;
};

/// slice_type 1 and 6 (table 7-6).
bool IsB(Bytes header) {
  BitReader reader(header);
  static_cast<void>(reader.TakeNumber());  // The first macroblock.
  return reader.TakeNumber() % 5 == 1;
}

void Take(Bytes nal, UnitFacts& facts) {
  switch (nal.front() & 0x1F) {
    case Sps:
      facts.hasSps = true;
      break;
    case Pps:
      facts.hasPps = true;
      break;
    case IdrSlice:
      facts.isIdr = true;
      break;
    case Slice:
      facts.hasB = facts.hasB || IsB(nal.subspan(1));
      break;
    default:
      break;
  }
}

UnitFacts Inspect(Bytes bytes) {
  UnitFacts facts;
  for (std::size_t i = 0; i + 3 < bytes.size(); ++i) {
    if (bytes[i + 2] > 1) {
      i += 2;  // No start code begins at any of the three.
    } else if (bytes[i] == 0 && bytes[i + 1] == 0 && bytes[i + 2] == 1) {
      Take(bytes.subspan(i + 3), facts);
      i += 2;
    }
  }
  return facts;
}

struct UnitMeta {
  GstMeta meta;
  GstBuffer* unit;
};

gboolean InitMeta(GstMeta* meta, gpointer, GstBuffer*) noexcept {
  reinterpret_cast<UnitMeta*>(meta)->unit = nullptr;
  return TRUE;
}

void FreeMeta(GstMeta* meta, GstBuffer*) noexcept {
  gst_clear_buffer(&reinterpret_cast<UnitMeta*>(meta)->unit);
}

/// Only what copies the whole frame keeps it: a part of the frame, or another size, is not what the camera encoded.
gboolean CopyMeta(GstBuffer* to, GstMeta* meta, GstBuffer*, GQuark type, gpointer data) noexcept {
  if (!GST_META_TRANSFORM_IS_COPY(type) || static_cast<GstMetaTransformCopy*>(data)->region != FALSE) return FALSE;
  AttachUnit(to, reinterpret_cast<UnitMeta*>(meta)->unit);
  return TRUE;
}

GType MetaApi() {
  // The tags keep elements that change pixels from handing it on.
  static const gchar* tags[] = {"video", "size", "colorspace", nullptr};
  static const GType api = gst_meta_api_type_register("SoftImxAccessUnitMetaAPI", tags);
  return api;
}

const GstMetaInfo* MetaInfo() {
  static const GstMetaInfo* const info =
      gst_meta_register(MetaApi(), "SoftImxAccessUnitMeta", sizeof(UnitMeta), InitMeta, FreeMeta, CopyMeta);
  return info;
}

}  // namespace

UnitFacts Inspect(GstBuffer* unit) {
  GstMapInfo map;
  if (gst_buffer_map(unit, &map, GST_MAP_READ) == FALSE) return {};
  const UnitFacts facts = Inspect(Bytes(map.data, map.size));
  gst_buffer_unmap(unit, &map);
  return facts;
}

void AttachUnit(GstBuffer* frame, GstBuffer* unit) {
  auto* meta = reinterpret_cast<UnitMeta*>(gst_buffer_add_meta(frame, MetaInfo(), nullptr));
  gst_buffer_replace(&meta->unit, unit);
}

GstBuffer* UnitOf(GstBuffer* frame) {
  const auto* meta = reinterpret_cast<const UnitMeta*>(gst_buffer_get_meta(frame, MetaApi()));
  return meta != nullptr ? meta->unit : nullptr;
}

}  // namespace SoftImx
