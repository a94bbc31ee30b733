#include "VideoProcessOverlayFilter.h"

#include <GLES2/gl2.h>

#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterOverlayFragmentShaderString =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; uniform sampler2D "
    "inputImageTexture2; uniform lowp float srcDirection; uniform lowp float multifyVal; uniform lowp float "
    "overlayVal; void main() { mediump vec4 base = texture2D(inputImageTexture, textureCoordinate); mediump "
    "vec4 overlay = texture2D(inputImageTexture2, textureCoordinate); gl_FragColor = vec4(base.rgb * "
    "srcDirection + overlay.rgb * multifyVal + overlayVal, overlay.a); }";

VideoProcessOverlayFilter::VideoProcessOverlayFilter() {
  setFragmentShader(kVideoCapFilterOverlayFragmentShaderString);
}

void VideoProcessOverlayFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  m_nFrameUniform2 = glGetUniformLocation(program, "inputImageTexture2");
  m_nSrcDirectionUniform = glGetUniformLocation(program, "srcDirection");
  m_nMultifyValUniform = glGetUniformLocation(program, "multifyVal");
  m_nOverlayValUniform = glGetUniformLocation(program, "overlayVal");
}

void VideoProcessOverlayFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform1i(m_nFrameUniform2, 2);
  glUniform1f(m_nSrcDirectionUniform, _srcDirection);
  glUniform1f(m_nMultifyValUniform, _multifyVal);
  glUniform1f(m_nOverlayValUniform, _overlayVal);
}

}  // namespace lumo
