// Whether the last access unit of a stream is whole.
#pragma once

#include "KMedia/H264/AnnexB.h"

namespace KMedia::H264 {

/// A power cut or a full disk can end a stream within a picture, which its bytes alone do not tell. Decodes the last
/// IDR picture and then the last access unit: entropy decoding does not depend on the pictures in between, so a cut
/// shows as a decoding error. The pictures left out can show as one too (a frame number that wraps, fields that look
/// for their pair), so a suspicion is settled by decoding everything from that IDR picture on.
///
/// False when the last unit of `stream` is damaged. With arithmetic coding a cut can pass where decoders do not notice
/// either: some bytes at the end of a picture (they read ahead and fill up its last macroblocks), or all of a later
/// slice but its header. Takes a few milliseconds, and as long as decoding the last group of pictures when there is a
/// suspicion.
bool IsLastUnitWhole(const AccessUnits& stream);

}  // namespace KMedia::H264
