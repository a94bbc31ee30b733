#pragma once

#include <array>
#include <cstdint>

#include "VideoProcessFilter.h"

namespace lumo {

// Clamps to [0, 255].
LUMO_EXPORT int32_t CheckValue(int32_t value);

// Maps each channel through a 256-entry brightening curve and mixes it with the input by `factor`.
class LUMO_EXPORT VideoProcessPinkWhitenFilter : public VideoProcessFilter {
 public:
  VideoProcessPinkWhitenFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  int32_t createWhitenMapBuffer();
  void setWhitenFactor(float factor);

  float factor() const { return _factor; }
  const std::array<float, 256>& curveMap() const { return curve; }

 private:
  int32_t m_nCurveUniform = 0;
  int32_t m_nFactorUniform = 0;
  std::array<float, 256> curve{};
  float _factor = 0.0f;
};

}  // namespace lumo
