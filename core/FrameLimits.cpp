#include "FrameLimits.h"

namespace lumo {

std::string frameSizeProblem(int64_t width, int64_t height) {
  const std::string frame = "a " + std::to_string(width) + " x " + std::to_string(height) + " frame";
  if (width < 1 || height < 1) return frame + " has no pixels";
  // Each side is checked first, so that the product below cannot overflow.
  if (width > kMaxFrameSide || height > kMaxFrameSide || width * height > kMaxFramePixels) {
    return frame + " is above the limit (" + std::to_string(kMaxFrameSide) + " a side, " +
           std::to_string(kMaxFramePixels >> 20) + " Mi pixels)";
  }
  return {};
}

}  // namespace lumo
