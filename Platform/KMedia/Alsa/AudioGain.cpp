// The capture gain of the sound card.
#include "KMedia/Alsa/AudioGain.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <string>

#include "Kbase/Klog/Logger.h"

namespace KMedia::Alsa {
namespace {

constexpr const char* Tag = "Kmedia";
constexpr const char* DefaultCard = "default";
/// What a card's mixer is called, before its number or id.
constexpr const char* CardPrefix = "hw:";
/// In the order of preference.
constexpr std::array<const char*, 2> UsualControls{"Capture", "Mic"};

bool Fail(const std::string& action, int error) {
  Kbase::Klog::Logger::GetInstance().Error(
      Tag, "cannot set the capture gain: " + action + (error < 0 ? std::string(": ") + snd_strerror(error) : ""));
  return false;
}

using Mixer = std::unique_ptr<snd_mixer_t, int (*)(snd_mixer_t*)>;

/// The mixer of the card that captures under that name: the arguments of a PCM begin with its card, "plughw:1,0" or
/// "dsnoop:CARD=Mic,DEV=0".
std::string FindCard(const std::string& device) {
  if (device.empty()) return DefaultCard;
  const std::size_t colon = device.find_last_of(':');
  if (colon == std::string::npos) return device;
  const std::string arguments = device.substr(colon + 1);
  const std::size_t named = arguments.find("CARD=");
  const std::size_t begin = named == std::string::npos ? 0 : named + std::strlen("CARD=");
  return CardPrefix + arguments.substr(begin, arguments.find(',', begin) - begin);
}

std::string Describe(const std::string& card) {
  return card == DefaultCard ? "the default card" : "the card " + card;
}

/// Attaches to the card and reads its controls; null, with a line in the log, when that fails.
Mixer OpenMixer(const std::string& card) {
  snd_mixer_t* opened = nullptr;
  int error = snd_mixer_open(&opened, 0);
  Mixer mixer(opened, snd_mixer_close);
  if (error >= 0) error = snd_mixer_attach(opened, card.c_str());
  if (error >= 0) error = snd_mixer_selem_register(opened, nullptr, nullptr);
  if (error >= 0) error = snd_mixer_load(opened);
  if (error >= 0) return mixer;
  Fail(Describe(card) + " has no mixer", error);
  return {nullptr, snd_mixer_close};
}

/// How far down the list of usual names a control stands; the list's length for any other.
std::size_t RankOf(snd_mixer_elem_t* control) {
  const char* name = snd_mixer_selem_get_name(control);
  const auto found = std::find_if(UsualControls.begin(), UsualControls.end(),
                                  [name](const char* usual) { return std::strcmp(name, usual) == 0; });
  return static_cast<std::size_t>(found - UsualControls.begin());
}

snd_mixer_elem_t* FindCaptureControl(snd_mixer_t* mixer) {
  snd_mixer_elem_t* best = nullptr;
  for (auto* control = snd_mixer_first_elem(mixer); control != nullptr; control = snd_mixer_elem_next(control)) {
    if (snd_mixer_selem_has_capture_volume(control) == 0) continue;
    if (best == nullptr || RankOf(control) < RankOf(best)) best = control;
  }
  return best;
}

long ClampToScale(snd_mixer_elem_t* control, long level) {
  long low = 0;
  long high = 0;
  if (snd_mixer_selem_get_capture_volume_range(control, &low, &high) < 0 || low > high) return level;
  const long clamped = std::clamp(level, low, high);
  if (clamped != level) {
    Kbase::Klog::Logger::GetInstance().Warning(
        Tag, "the capture gain " + std::to_string(level) + " is outside the card's scale of " + std::to_string(low) +
                 " to " + std::to_string(high) + ": " + std::to_string(clamped) + " is set");
  }
  return clamped;
}

}  // namespace

bool ChangeAudioGainLevel(int level, const std::string& device) {
  const std::string card = FindCard(device);
  const Mixer mixer = OpenMixer(card);
  if (!mixer) return false;
  snd_mixer_elem_t* control = FindCaptureControl(mixer.get());
  if (control == nullptr) return Fail(Describe(card) + " has no control with a capture volume", 0);
  const int error = snd_mixer_selem_set_capture_volume_all(control, ClampToScale(control, level));
  return error >= 0 || Fail(snd_mixer_selem_get_name(control), error);
}

}  // namespace KMedia::Alsa
