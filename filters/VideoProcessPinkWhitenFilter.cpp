#include "VideoProcessPinkWhitenFilter.h"

#include <GLES2/gl2.h>

#include "BeautifySettings.h"
#include "Shaders.h"

namespace lumo {

// The blue index is taken from green on purpose: blue follows the green level's curve value.
const char* const kVideoCapFilterPinkWhitenFragmentShaderString =
    "uniform sampler2D inputImageTexture; uniform lowp float curveMap[256]; uniform lowp float factor; "
    "varying highp vec2 textureCoordinate; void main() { lowp vec4 textureColor = "
    "texture2D(inputImageTexture, textureCoordinate); lowp int rIndex = int(textureColor.r*255.0); lowp int "
    "gIndex = int(textureColor.g*255.0); lowp int bIndex = int(textureColor.g*255.0); lowp float "
    "redCurveValue = curveMap[rIndex]; lowp float greenCurveValue = curveMap[gIndex]; lowp float "
    "blueCurveValue = curveMap[bIndex]; gl_FragColor = vec4(mix(textureColor.rgb, vec3(redCurveValue, "
    "greenCurveValue, blueCurveValue), factor), textureColor.a); }";

int32_t CheckValue(int32_t value) {
  if (value > 255) return 255;
  if (value < 0) return 0;
  return value;
}

VideoProcessPinkWhitenFilter::VideoProcessPinkWhitenFilter() {
  setFragmentShader(kVideoCapFilterPinkWhitenFragmentShaderString);
  _factor = 0.5f;
  createWhitenMapBuffer();
}

int32_t VideoProcessPinkWhitenFilter::createWhitenMapBuffer() {
  curve = pinkWhitenCurve();
  return 0;
}

void VideoProcessPinkWhitenFilter::setWhitenFactor(float factor) {
  _factor = factor;
  createWhitenMapBuffer();
}

void VideoProcessPinkWhitenFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  m_nCurveUniform = glGetUniformLocation(program, "curveMap");
  m_nFactorUniform = glGetUniformLocation(program, "factor");
}

void VideoProcessPinkWhitenFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform1fv(m_nCurveUniform, 256, curve.data());
  glUniform1f(m_nFactorUniform, _factor);
}

}  // namespace lumo
