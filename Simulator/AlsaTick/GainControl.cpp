// The simulated card's mixer: an external control plug-in of ALSA with one control, "Capture Volume".
#include "Simulator/AlsaTick/GainControl.h"

#include <alsa/asoundlib.h>
#include <alsa/control_external.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

namespace Tavi::Simulator {
namespace {

constexpr const char* ControlName = "Capture Volume";
constexpr snd_ctl_ext_key_t ControlKey = 0;

snd_ctl_ext_callback_t BuildCallbacks() {
  snd_ctl_ext_callback_t c{};
  c.close = [](snd_ctl_ext_t* ext) noexcept { delete ext; };
  c.elem_count = [](snd_ctl_ext_t*) noexcept { return 1; };
  c.elem_list = [](snd_ctl_ext_t*, unsigned, snd_ctl_elem_id_t* id) noexcept {
    snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_id_set_name(id, ControlName);
    return 0;
  };
  c.find_elem = [](snd_ctl_ext_t*, const snd_ctl_elem_id_t* id) noexcept {
    return std::strcmp(snd_ctl_elem_id_get_name(id), ControlName) == 0 ? ControlKey : SND_CTL_EXT_KEY_NOT_FOUND;
  };
  c.get_attribute = [](snd_ctl_ext_t*, snd_ctl_ext_key_t, int* type, unsigned* access, unsigned* count) noexcept {
    *type = SND_CTL_ELEM_TYPE_INTEGER;
    *access = SND_CTL_EXT_ACCESS_READWRITE;
    *count = 1;
    return 0;
  };
  c.get_integer_info = [](snd_ctl_ext_t*, snd_ctl_ext_key_t, long* low, long* high, long* step) noexcept {
    *low = GainControl::Lowest;
    *high = GainControl::Highest;
    *step = 1;
    return 0;
  };
  c.read_integer = [](snd_ctl_ext_t*, snd_ctl_ext_key_t, long* value) noexcept {
    *value = GainControl::Get();
    return 0;
  };
  c.write_integer = [](snd_ctl_ext_t*, snd_ctl_ext_key_t, long* value) noexcept {
    const bool changed = *value != GainControl::Get();
    return !GainControl::Set(*value) ? -EINVAL : changed ? 1 : 0;
  };
  c.read_event = [](snd_ctl_ext_t*, snd_ctl_elem_id_t*, unsigned*) noexcept { return -EAGAIN; };
  return c;
}

int Open(snd_ctl_t** handle, const char* name, int mode) {
  static const snd_ctl_ext_callback_t callbacks = BuildCallbacks();
  std::unique_ptr<snd_ctl_ext_t> ext(new (std::nothrow) snd_ctl_ext_t{});
  if (!ext) return -ENOMEM;
  ext->version = SND_CTL_EXT_VERSION;
  ext->card_idx = 0;
  std::strcpy(ext->id, "simulated");
  std::strcpy(ext->driver, "tavi_sim");
  std::strcpy(ext->name, "Simulated microphone");
  std::strcpy(ext->mixername, "Simulated microphone");
  ext->poll_fd = -1;
  ext->callback = &callbacks;
  const int error = snd_ctl_ext_create(ext.get(), name, mode);
  if (error < 0) return error;
  *handle = ext.release()->handle;
  return 0;
}

}  // namespace
}  // namespace Tavi::Simulator

extern "C" {
#pragma GCC visibility push(default)

/// What ALSA looks for in the library of the control type "tavi_sim".
SND_CTL_PLUGIN_DEFINE_FUNC(tavi_sim) {
  (void)root;
  (void)conf;
  return Tavi::Simulator::Open(handlep, name, mode);
}

SND_CTL_PLUGIN_SYMBOL(tavi_sim)

#pragma GCC visibility pop
}
