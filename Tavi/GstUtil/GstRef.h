// The one owner of references to GStreamer objects.
#pragma once

#include <gst/gst.h>

#include <type_traits>
#include <utility>

namespace Tavi::GstUtil {

/// A move-only reference to a GstObject (element, pad, bus) or a mini object (buffer, sample, caps).
template <typename T>
class GstRef {
 public:
  GstRef() = default;
  ~GstRef() { Reset(); }
  GstRef(GstRef&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}
  GstRef& operator=(GstRef&& other) noexcept {
    if (this != &other) {
      Reset();
      m_object = std::exchange(other.m_object, nullptr);
    }
    return *this;
  }
  GstRef(const GstRef&) = delete;
  GstRef& operator=(const GstRef&) = delete;

  /// Takes over a reference that is already the caller's.
  static GstRef Adopt(T* object) { return GstRef(object); }
  /// Adds a reference.
  static GstRef Share(T* object) {
    if (object != nullptr) AddReference(object);
    return GstRef(object);
  }
  /// Takes a floating reference, as element factories return it.
  static GstRef Sink(T* object) {
    if (object != nullptr) gst_object_ref_sink(object);
    return GstRef(object);
  }

  [[nodiscard]] T* Get() const { return m_object; }
  explicit operator bool() const { return m_object != nullptr; }
  /// Hands the reference to the caller.
  [[nodiscard]] T* Release() { return std::exchange(m_object, nullptr); }
  void Reset() {
    if (m_object != nullptr) DropReference(std::exchange(m_object, nullptr));
  }

 private:
  explicit GstRef(T* object) : m_object(object) {}

  /// Buffers, caps and the like start with a mini object; a sample is one too, but keeps its fields to itself.
  template <typename U>
  static constexpr bool IsMini = std::is_same_v<U, GstSample> || requires(U* u) {
    u->mini_object;
  };

  static void AddReference(T* object) {
    if constexpr (IsMini<T>) {
      gst_mini_object_ref(GST_MINI_OBJECT_CAST(object));
    } else {
      gst_object_ref(object);
    }
  }
  static void DropReference(T* object) {
    if constexpr (IsMini<T>) {
      gst_mini_object_unref(GST_MINI_OBJECT_CAST(object));
    } else {
      gst_object_unref(object);
    }
  }

  T* m_object = nullptr;
};

}  // namespace Tavi::GstUtil
