#include "VideoProcessCustomizedFilter.h"

#include <GLES2/gl2.h>

#include "BeautifySettings.h"
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

int32_t VideoProcessCustomizedFilter::setColorMatrix(int32_t index) {
  PresetValues values{};
  if (!lookupPreset(index, &values)) return -1;  // logged there; the current preset stays in force
  GPUVector4* rows[4] = {&_colorMatrix.one, &_colorMatrix.two, &_colorMatrix.three, &_colorMatrix.four};
  for (int k = 0; k < 4; ++k)
    *rows[k] = {values.matrix[k][0], values.matrix[k][1], values.matrix[k][2], values.matrix[k][3]};
  _colorOffset = {values.offset[0], values.offset[1], values.offset[2], values.offset[3]};
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
