#pragma once

#include <cstdint>
#include <vector>

#include "RegionMask.h"

namespace lumo {

// A region mask drawn at a frame's size: one weight level (0 to 255) a pixel, repeated in the four bytes of
// a 32-bit word so that the CPU kernels read it as they read a BGRA pixel and the GL engine uploads it as a
// BGRA texture. Redrawn only when the mask or the frame size changes.
class RegionWeights {
 public:
  // True when the weights changed.
  bool update(const RegionMask& mask, int width, int height);

  bool limited() const { return limited_; }
  // Rows [firstRow, endRow) and columns [firstColumn, endColumn) hold every nonzero weight; empty when
  // the region covers nothing.
  int firstRow() const { return firstRow_; }
  int endRow() const { return endRow_; }
  int firstColumn() const { return firstColumn_; }
  int endColumn() const { return endColumn_; }
  bool empty() const { return limited_ && firstRow_ >= endRow_; }
  const uint32_t* data() const { return words_.data(); }
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  void draw(const RegionEllipse& ellipse);

  RegionMask mask_;
  bool limited_ = false;
  int width_ = 0;
  int height_ = 0;
  int firstRow_ = 0;
  int endRow_ = 0;
  int firstColumn_ = 0;
  int endColumn_ = 0;
  std::vector<uint32_t> words_;
};

}  // namespace lumo
