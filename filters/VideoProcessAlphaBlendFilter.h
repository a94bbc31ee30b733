#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// Lays the second input over the first with the second input's alpha times `alpha`; keeps the first
// input's alpha. The second input is sampled on texture unit 2.
class LUMO_EXPORT VideoProcessAlphaBlendFilter : public VideoProcessFilter {
 public:
  VideoProcessAlphaBlendFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;

  float alpha() const { return _alpha; }
  void setAlpha(float alpha) { _alpha = alpha; }

 private:
  int32_t m_nFrameUniform2 = 0;
  int32_t m_nAlpha = 0;
  float _alpha = 0.5f;
};

}  // namespace lumo
