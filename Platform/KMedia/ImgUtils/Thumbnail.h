// A small still of a raw frame.
#pragma once

#include "KMedia/ImgUtils/KframeBuffer.h"

namespace KMedia::ImgUtils {

/// Scales `frame` (I420 in video range, as cameras deliver it) to `width` x `height` pixels, up to 65500 each, and
/// writes it as a JPEG to `path`, synced with its directory. Both are borrowed. The file is written aside and renamed,
/// so that no half picture ever stands under that name. False, with one line in the log that names the file, when the
/// frame is null or smaller than its width and height need, or when the file could not be written; then nothing is left
/// behind, and what stood there before still does. Reentrant.
bool CreateThumbnail(KframeBuffer* frame, const char* path, unsigned int width, unsigned int height);

}  // namespace KMedia::ImgUtils
