#pragma once

#include <cstddef>
#include <string>

#include "VideoProcessFilter.h"

namespace lumo {

// Separable Gaussian blur, pass 2 along columns and every other pass along rows, with texts generated for
// the kernel. The filter uses the optimized pair, which folds two neighbouring taps into one linear fetch.
class LUMO_EXPORT VideoProcessGaussianBlurFilter : public VideoProcessFilter {
 public:
  VideoProcessGaussianBlurFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  // Regenerates the texts and rebuilds the program only when radius or sigma change.
  void setBlurRadisAndSigma(float radius, float sigma);

  float stepOffset() const { return _stepOffset; }
  void setStepOffset(float offset) { _stepOffset = offset; }
  float blurRadius() const { return _blurRadius; }
  float sigma() const { return _sigma; }

  // One fetch per tap: 2 * radius + 1 coordinates and fetches.
  static std::string vertexShaderForStandardBlurOfRadius(size_t radius, double sigma);
  static std::string fragmentShaderForStandardBlurOfRadius(size_t radius, double sigma);
  // One fetch per pair of taps, placed at the pair's weighted centre; at most seven pairs get coordinates
  // from the vertex stage, the rest are computed per fragment.
  static std::string vertexShaderForOptimizedBlurOfRadius(size_t radius, double sigma);
  static std::string fragmentShaderForOptimizedBlurOfRadius(size_t radius, double sigma);

 private:
  int32_t m_nWidthOffsetUniform = 0;
  int32_t m_nHeightOffsetUniform = 0;
  float _blurRadius = 4.0f;
  float _sigma = 2.0f;
  float _stepOffset = 4.0f;
};

}  // namespace lumo
