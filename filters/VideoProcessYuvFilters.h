#pragma once

#include <cstdint>

#include "PixelBuffer.h"
#include "VideoProcessFilter.h"

namespace lumo {

// Planar YUV (4:2:0, or I422's 4:2:2) to RGB, the pass before the beautify passes of a YUV frame. The luma
// plane is sampled through `inputImageTexture` (unit 0, GL_LUMINANCE); the chroma through
// `inputImageTexture2` (unit 2: NV12's interleaved plane as GL_LUMINANCE_ALPHA, Cb as GL_LUMINANCE) and,
// but for NV12, `inputImageTexture3` (unit 3, Cr). Chroma is sited at the centre of its 2 x 2 block and filtered
// bilinearly by the sampler, so that each luma pixel gets 3/4 of the nearer chroma sample and 1/4 of the
// farther on each axis, the edge sample repeated; 4:2:2 chroma sits on its own row and blends across only.
class VideoProcessYuvToRgbFilter : public VideoProcessFilter {
 public:
  VideoProcessYuvToRgbFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  // The frame's format (NV12, I420 or I422), size and resolved colorimetry, set before each draw.
  void setFrame(uint32_t pixelFormat, int32_t width, int32_t height, YuvColorimetry colorimetry);

 private:
  int32_t chromaUniform_ = -1;
  int32_t chroma2Uniform_ = -1;
  int32_t lumaSizeUniform_ = -1;
  int32_t chromaSizeUniform_ = -1;
  int32_t chromaStepUniform_ = -1;
  int32_t interleavedUniform_ = -1;
  int32_t rowsUniform_[3] = {-1, -1, -1};
  uint32_t pixelFormat_ = kPixelFormatNV12;
  int32_t width_ = 1;
  int32_t height_ = 1;
  YuvColorimetry colorimetry_;
};

// RGB to one plane of a planar YUV frame, the pass after the beautify passes: it draws into an RGBA texture
// whose texels are the plane's bytes, four at a time (Y, Cb or Cr: four samples a texel; NV12's CbCr: two
// pairs), so that the plane is read back as it is stored. A chroma sample is the mean of its block of pixels
// (2 x 2, or 2 x 1 for 4:2:2; the last column or row repeated at an odd edge), converted. One program draws
// luma (one fetch a sample: Plane::Luma only), another the chroma planes.
class VideoProcessRgbToYuvFilter : public VideoProcessFilter {
 public:
  enum class Plane { Luma, ChromaInterleaved, Cb, Cr };

  explicit VideoProcessRgbToYuvFilter(bool luma);

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  // The source's size and colorimetry, the plane to draw and the rows a chroma sample spans (2 or 1), set
  // before each draw.
  void setPlane(Plane plane, int32_t width, int32_t height, int32_t chromaRows, YuvColorimetry colorimetry);

 private:
  int32_t sourceSizeUniform_ = -1;
  int32_t blockUniform_ = -1;
  int32_t samplesPerTexelUniform_ = -1;
  int32_t sampleInTexelUniform_ = -1;
  int32_t rowsUniform_ = -1;
  Plane plane_ = Plane::Luma;
  int32_t chromaRows_ = 2;
  int32_t width_ = 1;
  int32_t height_ = 1;
  YuvColorimetry colorimetry_;
};

}  // namespace lumo
