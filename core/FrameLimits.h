#pragma once

#include <cstdint>
#include <string>

namespace lumo {

// The largest frame any front end takes, checked from a header or caps before a pixel is allocated.
// 16384 is the GL engine's texture limit on llvmpipe and most GPUs; 128 Mi pixels keep a frame, its result
// and the engines' working copies within a few GiB, so that one frame cannot take a worker's memory.
constexpr int64_t kMaxFrameSide = 16384;
constexpr int64_t kMaxFramePixels = int64_t{1} << 27;

// Empty when a width x height frame is within the limits; otherwise the reason, with the limits:
// "a 20000 x 64 frame is above the limit (16384 a side, 128 Mi pixels)", or "... has no pixels" for a side
// below 1. Inline, so that helpers checking a header need no link to the library.
inline std::string frameSizeProblem(int64_t width, int64_t height) {
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
