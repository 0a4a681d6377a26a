// Whether the last access unit of a stream is whole.
#pragma once

#include "KMedia/H264/AnnexB.h"

namespace KMedia::H264 {

/// A power cut or a full disk can end a stream within a picture, which its bytes alone do not tell. Decodes the last IDR
/// picture and then the last access unit: entropy decoding does not depend on the pictures in between, so a cut shows as
/// a decoding error whatever the references look like (but for the last two bytes of an arithmetically coded picture,
/// which decoders do without). False when the last unit of `stream` is damaged. Takes a few
/// milliseconds.
bool IsLastUnitWhole(const AccessUnits& stream);

}  // namespace KMedia::H264
