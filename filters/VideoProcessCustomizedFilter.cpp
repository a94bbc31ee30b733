#include "VideoProcessCustomizedFilter.h"

#include <GLES2/gl2.h>

#include "Log.h"
#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterCustomizedFragmentShaderString =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; uniform lowp mat4 "
    "colorMatrix; uniform lowp vec4 colorOffset; void main() { lowp vec4 textureColor = "
    "texture2D(inputImageTexture, textureCoordinate) * 255.0; textureColor = textureColor * colorMatrix + "
    "colorOffset; if (textureColor.r > 255.0) { textureColor.r = 255.0; } if(textureColor.r < 0.0){ "
    "textureColor.r = 0.0; } if (textureColor.g > 255.0) { textureColor.g = 255.0; } if (textureColor.g < "
    "0.0) { textureColor.g = 0.0; } if (textureColor.b > 255.0) { textureColor.b = 255.0; } if "
    "(textureColor.b < 0.0) { textureColor.b = 0.0; } if (textureColor.a > 255.0) { textureColor.a = 255.0; "
    "} if (textureColor.a < 0.0) { textureColor.a = 0.0; } gl_FragColor = textureColor / 255.0; }";

VideoProcessCustomizedFilter::VideoProcessCustomizedFilter() {
  setFragmentShader(kVideoCapFilterCustomizedFragmentShaderString);
  // Index 0 is outside the table: every construction logs the error line once and keeps a zero matrix.
  setColorMatrix(0);
}

bool VideoProcessCustomizedFilter::presetValues(int32_t index, GPUMatrix4x4* matrix, GPUVector4* offset) {
  static constexpr GPUMatrix4x4 colorMatrixes[kPresetCount] = {
      {{1.7f, 0.1f, 0.1f, 0.0f}, {0.0f, 1.7f, 0.1f, 0.0f}, {0.0f, 0.1f, 1.6f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.8f, 1.6f, 0.2f, 0.0f}, {0.8f, 1.6f, 0.2f, 0.0f}, {0.8f, 1.6f, 0.2f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.2f, 0.5f, 0.1f, 0.0f}, {0.2f, 0.5f, 0.1f, 0.0f}, {0.2f, 0.5f, 0.1f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{1.9f, -0.3f, -0.2f, 0.0f}, {-0.2f, 1.7f, -0.1f, 0.0f}, {-0.1f, -0.6f, 2.0f, 0.0f},
       {0.0f, 0.0f, 0.0f, 1.0f}},
      {{4.8f, -1.0f, -0.1f, 0.0f}, {-0.5f, 4.4f, -0.1f, 0.0f}, {-0.5f, -1.0f, 5.2f, 0.0f},
       {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.6f, 0.3f, 0.1f, 0.0f}, {0.2f, 0.7f, 0.1f, 0.0f}, {0.2f, 0.3f, 0.4f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{1.2f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.9f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.8f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.9f, 0.0f, 0.0f, 0.0f}, {0.0f, 1.1f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.9f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.9f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.9f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.9f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.9f, 0.0f, 0.0f, 0.0f}, {0.0f, 0.9f, 0.0f, 0.0f}, {0.0f, 0.0f, 0.9f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{2.1f, -1.4f, 0.6f, 0.0f}, {-0.3f, 2.0f, -0.3f, 0.0f}, {-1.1f, -0.2f, 2.6f, 0.0f},
       {0.0f, 0.0f, 0.0f, 1.0f}},
      {{0.8f, 0.3f, 0.1f, 0.0f}, {0.1f, 0.9f, 0.0f, 0.0f}, {0.1f, 0.3f, 0.7f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
      {{1.0f, 0.0f, 0.0f, 0.0f}, {0.0f, 1.1f, 0.0f, 0.0f}, {0.0f, 0.0f, 1.0f, 0.0f}, {0.0f, 0.0f, 0.0f, 1.0f}},
  };
  // Presets 9 and 10 differ only in their offset (63.0 against 64.9); both are intended.
  static constexpr GPUVector4 colorOffsets[kPresetCount] = {
      {-73.1f, -73.1f, -73.1f, 0.0f},  {-163.9f, -163.9f, -163.9f, 0.0f}, {40.8f, 40.8f, 40.8f, 0.0f},
      {-87.0f, -87.0f, -87.0f, 0.0f},  {-388.4f, -388.4f, -388.4f, 0.0f}, {73.3f, 73.3f, 73.3f, 0.0f},
      {0.0f, 0.0f, 0.0f, 0.0f},        {0.0f, 0.0f, 0.0f, 0.0f},          {63.0f, 63.0f, 63.0f, 0.0f},
      {64.9f, 64.9f, 64.9f, 0.0f},     {-31.0f, -31.0f, -31.0f, 0.0f},    {46.5f, 46.5f, 46.5f, 0.0f},
      {-66.6f, -66.6f, -66.6f, 0.0f},
  };
  if (index < 1 || index > kPresetCount) return false;
  *matrix = colorMatrixes[index - 1];
  *offset = colorOffsets[index - 1];
  return true;
}

int32_t VideoProcessCustomizedFilter::setColorMatrix(int32_t index) {
  if (index < 1 || index > kPresetCount) {
    // The logged value is index - 1, as the line has always reported it.
    // Wraps like 32-bit arithmetic for the lowest index instead of overflowing.
    const auto shown = static_cast<int32_t>(static_cast<uint32_t>(index) - 1u);
    log("LUMO Video Filter - Custumized Filter set color matrix index error: %d", shown);
    return -1;
  }
  presetValues(index, &_colorMatrix, &_colorOffset);
  return index - 1;
}

void VideoProcessCustomizedFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  _colorMatrixUniform = glGetUniformLocation(program, "colorMatrix");
  _colorOffsetUniform = glGetUniformLocation(program, "colorOffset");
}

void VideoProcessCustomizedFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniformMatrix4fv(_colorMatrixUniform, 1, GL_FALSE, &_colorMatrix.one.one);
  glUniform4fv(_colorOffsetUniform, 1, &_colorOffset.one);
}

}  // namespace lumo
