// The size of a picture.
#pragma once

namespace KMedia::ImgUtils {

/// In pixels; zeros where it is not known.
struct PictureSize {
  int width = 0;
  int height = 0;
};

}  // namespace KMedia::ImgUtils
