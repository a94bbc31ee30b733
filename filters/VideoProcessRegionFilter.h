#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// Multiplies the skin layer's alpha (first input, unit 0) by the region weight (the second input's alpha,
// unit 2), keeping its colour: the pass before the skin blend when the host limits the skin-gated passes
// to regions.
class VideoProcessRegionFilter : public VideoProcessFilter {
 public:
  VideoProcessRegionFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;

 private:
  int32_t regionUniform_ = -1;
};

}  // namespace lumo
