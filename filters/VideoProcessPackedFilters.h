#pragma once

#include <cstdint>

#include "PixelBuffer.h"
#include "VideoProcessFilter.h"

namespace lumo {

// Packed 4:2:2 (YUY2, UYVY) to RGB, the pass before the beautify passes. The plane is one RGBA texture on
// unit 0 of (w + 1) / 2 texels a row, a texel a pair of pixels. Luma is picked by the pixel's parity from the
// texel at its centre; chroma, sited at the pair's centre, is filtered across by the sampler (3/4 of the
// nearer pair, 1/4 of the farther, the edge pair repeated), each row on its own.
class VideoProcessPackedYuvToRgbFilter : public VideoProcessFilter {
 public:
  VideoProcessPackedYuvToRgbFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  // The frame's format, size and resolved colorimetry, set before each draw.
  void setFrame(uint32_t pixelFormat, int32_t width, int32_t height, YuvColorimetry colorimetry);

 private:
  int32_t planeSizeUniform_ = -1;
  int32_t pickUniforms_[4] = {-1, -1, -1, -1};  // luma of an even pixel, of an odd one, Cb, Cr
  int32_t rowsUniform_[3] = {-1, -1, -1};
  uint32_t pixelFormat_ = kPixelFormatYUY2;
  int32_t width_ = 1;
  int32_t height_ = 1;
  YuvColorimetry colorimetry_;
};

// RGB to packed 4:2:2, the pass after the beautify passes: it draws into an RGBA texture of (w + 1) / 2
// texels a row whose texel is the macro-pixel (Y0 Cb Y1 Cr, or Cb Y0 Cr Y1), read back as it is stored.
// Chroma is the pair's mean, converted; an odd width's last pair is its pixel twice (the sampler clamps), so
// its padding luma is that pixel's.
class VideoProcessRgbToPackedYuvFilter : public VideoProcessFilter {
 public:
  VideoProcessRgbToPackedYuvFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  void setFrame(uint32_t pixelFormat, int32_t width, int32_t height, YuvColorimetry colorimetry);

 private:
  int32_t sourceSizeUniform_ = -1;
  int32_t rowsUniform_[3] = {-1, -1, -1};
  int32_t uyvyUniform_ = -1;
  uint32_t pixelFormat_ = kPixelFormatYUY2;
  int32_t width_ = 1;
  int32_t height_ = 1;
  YuvColorimetry colorimetry_;
};

// What the two 24-bit conversions share: the frame's size in the named uniform and the byte order.
class VideoProcessRgb24Filter : public VideoProcessFilter {
 public:
  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  void setFrame(uint32_t pixelFormat, int32_t width, int32_t height);

 protected:
  VideoProcessRgb24Filter(const char* fragmentShader, const char* sizeName);

 private:
  const char* sizeName_;
  int32_t sizeUniform_ = -1;
  int32_t rgbOrderUniform_ = -1;
  uint32_t pixelFormat_ = kPixelFormat24BGR;
  int32_t width_ = 1;
  int32_t height_ = 1;
};

// 24-bit BGR or RGB, mapped as a GL_RGB texture on unit 0, to the frame's RGB with alpha opaque.
class VideoProcessRgb24ToRgbFilter final : public VideoProcessRgb24Filter {
 public:
  VideoProcessRgb24ToRgbFilter();
};

// RGB to 24-bit BGR or RGB: it draws into an RGBA texture whose texels are the row's bytes four at a time
// ((3 w + 3) / 4 texels a row, the last one's tail unused), so that the buffer is read back as it is stored.
class VideoProcessRgbToRgb24Filter final : public VideoProcessRgb24Filter {
 public:
  VideoProcessRgbToRgb24Filter();
};

}  // namespace lumo
