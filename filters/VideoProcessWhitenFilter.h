#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// Brightens luma along a rational tone curve (chroma kept), then a balance step around `factor`.
class LUMO_EXPORT VideoProcessWhitenFilter : public VideoProcessFilter {
 public:
  VideoProcessWhitenFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  void setWhitenFactor(float factor) { factor_ = factor; }

 private:
  int32_t m_nTemperatureUniform = 0;
  int32_t m_nFactorUniform = 0;
  float factor_ = 0.0f;
};

}  // namespace lumo
