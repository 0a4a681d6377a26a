// The capture gain of the sound card.
#pragma once

#include <string>

namespace KMedia::Alsa {

/// Sets the capture volume of the card that captures as `device` (an ALSA name of a PCM, such as "plughw:1,0" or
/// "plughw:CARD=Mic,DEV=0"; a name of somebody's own stands for the mixer of the same name; empty for ALSA's default
/// card) to `level`, in the card's own scale, on all channels; a level beyond the scale is set to its nearer end, with
/// a line in the log. The control is the one that mixers show for capture: "Capture" where there is one, else "Mic",
/// else the first with a capture volume. False, with a line in the log that names what failed, when the card has no
/// mixer or no such control. Reentrant.
bool ChangeAudioGainLevel(int level, const std::string& device = {});

}  // namespace KMedia::Alsa
