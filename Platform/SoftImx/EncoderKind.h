// The machine's H.264 encoders: how each is told to keep the stream's contract, and which one is taken.
#pragma once

#include <gst/gst.h>

#include <string>

namespace SoftImx {

/// What one encoder is to do.
struct EncoderOrder {
  guint bitrateKbps = 2048;
  /// Frames from one IDR frame to the next, at least 1.
  guint interval = 30;
};

/// One way to encode: an element of another plug-in and how it is set.
struct EncoderKind {
  /// What a user calls it; several elements may share a name, the better one first.
  const char* name;
  const char* factory;
  /// Runs on hardware, which may be missing though its plug-in is there, and which nobody has seen keep the contract.
  bool isHardware;
  /// Counts frames in a way of its own, so that each key frame is asked for.
  bool needsRequests;
  /// What it must deliver; more than the contract says where the element would not start otherwise.
  const char* caps;
  /// Options that hold whatever is ordered.
  void (*prepare)(GstElement*);
  /// Counts at once where the element can.
  void (*order)(GstElement*, const EncoderOrder&);
};

/// What any encoder takes the place of.
inline constexpr const char* AnyEncoder = "auto";

/// The kind that a user's name stands for on this machine; for "auto" the first of hardware and software that is there.
/// Hardware is tried once a process, for a few frames: it is taken only if its stream keeps the contract. Null with
/// `problem` for the user when there is none. Thread-safe; blocks for as long as the trial takes, at most seconds.
[[nodiscard]] const EncoderKind* FindEncoder(const std::string& name, std::string& problem);

}  // namespace SoftImx
