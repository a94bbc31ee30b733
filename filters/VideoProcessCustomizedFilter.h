#pragma once

#include "BeautifySettings.h"
#include "VideoProcessFilter.h"

namespace lumo {

struct GPUVector4 {
  float one;
  float two;
  float three;
  float four;
};

// Stored vector `one` forms output red, `two` green, `three` blue, `four` alpha: the matrix is uploaded
// without transposition and the colour multiplies it as a row vector.
struct GPUMatrix4x4 {
  GPUVector4 one;
  GPUVector4 two;
  GPUVector4 three;
  GPUVector4 four;
};

// One of thirteen colour presets: colour * 255 times a 4 x 4 matrix plus an offset, clamped to 0..255.
class LUMO_EXPORT VideoProcessCustomizedFilter : public VideoProcessFilter {
 public:
  static constexpr int32_t kPresetCount = BeautifySettings::kPresetCount;

  VideoProcessCustomizedFilter();

  void initUniforms(uint32_t program) override;
  void setUniforms(int32_t pass) override;
  // Loads preset `index` (1..13) and returns its row, index - 1; any other index is logged and gives -1,
  // leaving the current preset in force. No GL call.
  int32_t setColorMatrix(int32_t index);

  const GPUMatrix4x4& colorMatrix() const { return _colorMatrix; }
  const GPUVector4& colorOffset() const { return _colorOffset; }

 private:
  GPUMatrix4x4 _colorMatrix{};
  GPUVector4 _colorOffset{};
  int32_t _colorMatrixUniform = 0;
  int32_t _colorOffsetUniform = 0;
};

}  // namespace lumo
