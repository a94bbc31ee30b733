#pragma once

#include <utility>
#include <vector>

namespace lumo {

// A soft ellipse in frame pixels (x right, y down, the frame's top-left corner at 0, 0): weight 1 inside
// (1 - feather) of its radii, easing smoothly to 0 at the ellipse itself.
struct RegionEllipse {
  float centerX = 0.0f;
  float centerY = 0.0f;
  float radiusX = 0.0f;
  float radiusY = 0.0f;
  float feather = 0.3f;  // the share of the radii the edge takes, 0.01 to 1
};

// Where the skin-gated passes (smoothing, detail layer, skin whitening, the skin blend) act: the skin weight
// is multiplied by the region's weight, the largest of its ellipses at each pixel. The whole frame, the
// default, is the picture as without regions; a limited mask with no ellipse leaves every pixel to the
// whole-frame passes (whiten, sharpen, preset).
struct RegionMask {
  bool wholeFrame = true;
  std::vector<RegionEllipse> ellipses;

  static RegionMask whole() { return RegionMask{}; }
  static RegionMask inside(std::vector<RegionEllipse> ellipses) { return RegionMask{false, std::move(ellipses)}; }
};

}  // namespace lumo
