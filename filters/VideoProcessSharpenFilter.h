#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// Five-point Laplacian sharpen: each pixel pushed away from the mean of its four direct neighbours.
class LUMO_EXPORT VideoProcessSharpenFilter : public VideoProcessFilter {
 public:
  VideoProcessSharpenFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  void setSampleFactor(float factor) { m_fFactor = factor; }

 private:
  int32_t m_nImageWidthFactor = 0;
  int32_t m_nImageHeightFactor = 0;
  int32_t m_nSharpness = 0;
  float m_fFactor = 1.0f;
};

}  // namespace lumo
