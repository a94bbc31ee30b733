#include "RegionWeights.h"

#include <algorithm>
#include <cmath>

namespace lumo {
namespace {

bool sameEllipses(const std::vector<RegionEllipse>& a, const std::vector<RegionEllipse>& b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const RegionEllipse& x, const RegionEllipse& y) {
    return x.centerX == y.centerX && x.centerY == y.centerY && x.radiusX == y.radiusX && x.radiusY == y.radiusY &&
           x.feather == y.feather;
  });
}

}  // namespace

bool RegionWeights::update(const RegionMask& mask, int width, int height) {
  const bool sameSize = width == width_ && height == height_;
  if (sameSize && mask.wholeFrame == mask_.wholeFrame && (mask.wholeFrame || sameEllipses(mask.ellipses, mask_.ellipses))) {
    return false;
  }
  // A whole-frame mask needs no weights: the engines take their usual path.
  if (mask.wholeFrame && !limited_ && sameSize) {
    mask_ = mask;
    return false;
  }
  mask_ = mask;
  limited_ = !mask.wholeFrame;
  width_ = width;
  height_ = height;
  firstRow_ = height;
  endRow_ = 0;
  firstColumn_ = width;
  endColumn_ = 0;
  if (!limited_) {
    words_.clear();
    words_.shrink_to_fit();
    return true;
  }
  words_.assign(static_cast<size_t>(width) * static_cast<size_t>(height), 0u);
  for (const RegionEllipse& ellipse : mask.ellipses) draw(ellipse);
  if (firstRow_ >= endRow_) firstRow_ = endRow_ = firstColumn_ = endColumn_ = 0;
  return true;
}

// Smoothstep from the ellipse (weight 0) to the inner ellipse at (1 - feather) of the radii (weight 1), on
// the normalised distance, so that the weight falls monotonically along every ray from the centre.
void RegionWeights::draw(const RegionEllipse& e) {
  if (!(e.radiusX > 0.0f) || !(e.radiusY > 0.0f) || !std::isfinite(e.centerX) || !std::isfinite(e.centerY)) return;
  const float feather = std::clamp(std::isfinite(e.feather) ? e.feather : 0.3f, 0.01f, 1.0f);
  const int y0 = std::max(0, static_cast<int>(std::floor(e.centerY - e.radiusY)));
  const int y1 = std::min(height_, static_cast<int>(std::ceil(e.centerY + e.radiusY)) + 1);
  const int x0 = std::max(0, static_cast<int>(std::floor(e.centerX - e.radiusX)));
  const int x1 = std::min(width_, static_cast<int>(std::ceil(e.centerX + e.radiusX)) + 1);
  for (int y = y0; y < y1; ++y) {
    const float dy = (static_cast<float>(y) + 0.5f - e.centerY) / e.radiusY;
    uint32_t* row = words_.data() + static_cast<size_t>(y) * static_cast<size_t>(width_);
    bool any = false;
    for (int x = x0; x < x1; ++x) {
      const float dx = (static_cast<float>(x) + 0.5f - e.centerX) / e.radiusX;
      const float distance = std::sqrt(dx * dx + dy * dy);
      if (distance >= 1.0f) continue;
      const float t = std::min((1.0f - distance) / feather, 1.0f);
      const auto level = static_cast<uint32_t>(std::lround(t * t * (3.0f - 2.0f * t) * 255.0f));
      if (level == 0) continue;
      row[x] = std::max(row[x], level * 0x01010101u);
      firstColumn_ = std::min(firstColumn_, x);
      endColumn_ = std::max(endColumn_, x + 1);
      any = true;
    }
    if (any) {
      firstRow_ = std::min(firstRow_, y);
      endRow_ = std::max(endRow_, y + 1);
    }
  }
}

}  // namespace lumo
