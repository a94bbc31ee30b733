#include "VideoProcessAlphaBlendFilter.h"

#include <GLES2/gl2.h>

#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterAlphaBlendFragmentShaderString =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; uniform sampler2D "
    "inputImageTexture2; uniform lowp float alpha; void main() { lowp vec4 firstTextureColor = "
    "texture2D(inputImageTexture, textureCoordinate); lowp vec4 secondTextureColor = "
    "texture2D(inputImageTexture2, textureCoordinate); gl_FragColor = vec4(mix(firstTextureColor.rgb, "
    "secondTextureColor.rgb, secondTextureColor.a * alpha), firstTextureColor.a); }";

VideoProcessAlphaBlendFilter::VideoProcessAlphaBlendFilter() {
  setFragmentShader(kVideoCapFilterAlphaBlendFragmentShaderString);
}

void VideoProcessAlphaBlendFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  m_nFrameUniform2 = glGetUniformLocation(program, "inputImageTexture2");
  m_nAlpha = glGetUniformLocation(program, "alpha");
}

void VideoProcessAlphaBlendFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform1i(m_nFrameUniform2, 2);
  glUniform1f(m_nAlpha, _alpha);
}

}  // namespace lumo
