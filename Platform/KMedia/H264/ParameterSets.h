// What the parameter sets of an H.264 stream say.
#pragma once

#include "KMedia/H264/AnnexB.h"
#include "KMedia/ImgUtils/PictureSize.h"

namespace KMedia::H264 {

/// What the sequence parameter set says of the picture; zeros when it says nothing. Safe on any bytes.
ImgUtils::PictureSize ReadPictureSize(const AccessUnits& video);

}  // namespace KMedia::H264
