#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// Separable nine-tap bilateral smoothing, pass 1 along rows and pass 2 along columns. The centre colour
// comes from the first input (unit 0), every neighbour from the second (unit 2).
class LUMO_EXPORT VideoProcessBilateralFilter : public VideoProcessFilter {
 public:
  VideoProcessBilateralFilter();

  // Also resets the step to 3.0 and the factor to 4.0: every build does, by design.
  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  void setSampleStep(float step) { step_ = step; }
  void setColorDistanceFactor(float factor) { distance_normalization_factor_ = factor; }

 private:
  int32_t m_nWidthOffsetUniform = 0;
  int32_t m_nHeightOffsetUniform = 0;
  int32_t m_nDistanceNormalizationFactorUniform = 0;
  float step_ = 0.0f;
  float distance_normalization_factor_ = 0.0f;
  int32_t m_nFrameUniform2 = 0;
};

}  // namespace lumo
