// The capture gain of the sound card.
#pragma once

namespace KMedia::Alsa {

/// Sets the capture volume of the default ALSA card to `level`, in the card's own scale, on all channels; a level
/// beyond the scale is set to its nearer end, with a line in the log. The control is the one that mixers show for
/// capture: "Capture" where there is one, else "Mic", else the first with a capture volume. False, with a line in the
/// log that names what failed, when the card has no mixer or no such control. Reentrant.
bool ChangeAudioGainLevel(int level);

}  // namespace KMedia::Alsa
