#pragma once

#include "VideoProcessFilter.h"

namespace lumo {

// out.rgb = first.rgb * srcDirection + second.rgb * multifyVal + overlayVal, alpha from the second input.
class LUMO_EXPORT VideoProcessOverlayFilter : public VideoProcessFilter {
 public:
  VideoProcessOverlayFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;

  float srcDirection() const { return _srcDirection; }
  void setSrcDirection(float value) { _srcDirection = value; }
  float multifyVal() const { return _multifyVal; }
  void setMultifyVal(float value) { _multifyVal = value; }
  float overlayVal() const { return _overlayVal; }
  void setOverlayVal(float value) { _overlayVal = value; }

 private:
  int32_t m_nFrameUniform2 = 0;
  int32_t m_nSrcDirectionUniform = 0;
  int32_t m_nMultifyValUniform = 0;
  int32_t m_nOverlayValUniform = 0;
  float _srcDirection = 0.0f;
  float _multifyVal = 0.0f;
  float _overlayVal = 0.0f;
};

}  // namespace lumo
