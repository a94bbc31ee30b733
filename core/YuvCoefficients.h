#pragma once

#include <array>

#include "PixelBuffer.h"

namespace lumo {

// The numbers of one YUV colorimetry, on 0..255 sample values: Y = yOffset + yScale * (kr R + kg G + kb B),
// and a chroma sample is 128 plus cScale times the colour difference over its span (2 (1 - kb) for Cb,
// 2 (1 - kr) for Cr). Both engines convert with these, so that their YUV frames agree.
struct YuvCoefficients {
  float kr, kg, kb;
  float yOffset, yScale;
  float cScale;

  // Affine maps on normalised samples (level / 255): each row is (weight of the 1st, 2nd, 3rd input, offset).
  using Rows = std::array<std::array<float, 4>, 3>;
  // Rows R, G, B from inputs Y, Cb, Cr.
  Rows rgbFromYuv() const;
  // Rows Y, Cb, Cr from inputs R, G, B.
  Rows yuvFromRgb() const;
};

// `colorimetry` must be resolved (no Auto part left): Auto reads as BT.601 and limited range.
YuvCoefficients yuvCoefficients(const YuvColorimetry& colorimetry);

}  // namespace lumo
