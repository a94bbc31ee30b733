#include "VideoProcessSharpenFilter.h"

#include <GLES2/gl2.h>

#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterSharpenVertexShaderString =
    "attribute vec4 position; attribute vec4 inputTextureCoordinate; uniform float imageWidthFactor; "
    "uniform float imageHeightFactor; uniform float sharpness; varying vec2 textureCoordinate; varying vec2 "
    "leftTextureCoordinate; varying vec2 rightTextureCoordinate; varying vec2 topTextureCoordinate; varying "
    "vec2 bottomTextureCoordinate; varying float centerMultiplier; varying float edgeMultiplier; void main() "
    "{ gl_Position = position; vec2 widthStep = vec2(imageWidthFactor, 0.0); vec2 heightStep = vec2(0.0, "
    "imageHeightFactor); textureCoordinate = inputTextureCoordinate.xy; leftTextureCoordinate = "
    "inputTextureCoordinate.xy - widthStep; rightTextureCoordinate = inputTextureCoordinate.xy + widthStep; "
    "topTextureCoordinate = inputTextureCoordinate.xy + heightStep; bottomTextureCoordinate = "
    "inputTextureCoordinate.xy - heightStep; centerMultiplier = 1.0 + 4.0 * sharpness; edgeMultiplier = "
    "sharpness; }";

// The alpha comes from the bottom neighbour, not the centre; for opaque frames it is the same.
const char* const kVideoCapFilterSharpenFragmentShaderString =
    "precision highp float; varying highp vec2 textureCoordinate; varying highp vec2 leftTextureCoordinate; "
    "varying highp vec2 rightTextureCoordinate; varying highp vec2 topTextureCoordinate; varying highp vec2 "
    "bottomTextureCoordinate; varying highp float centerMultiplier; varying highp float edgeMultiplier; "
    "uniform sampler2D inputImageTexture; void main() { mediump vec3 textureColor = "
    "texture2D(inputImageTexture, textureCoordinate).rgb; mediump vec3 leftTextureColor = "
    "texture2D(inputImageTexture, leftTextureCoordinate).rgb; mediump vec3 rightTextureColor = "
    "texture2D(inputImageTexture, rightTextureCoordinate).rgb; mediump vec3 topTextureColor = "
    "texture2D(inputImageTexture, topTextureCoordinate).rgb; mediump vec3 bottomTextureColor = "
    "texture2D(inputImageTexture, bottomTextureCoordinate).rgb; mediump vec4 result = vec4((textureColor * "
    "centerMultiplier - (leftTextureColor * edgeMultiplier + rightTextureColor * edgeMultiplier + "
    "topTextureColor * edgeMultiplier + bottomTextureColor * edgeMultiplier)), "
    "texture2D(inputImageTexture, bottomTextureCoordinate).w); gl_FragColor = result; }";

VideoProcessSharpenFilter::VideoProcessSharpenFilter() {
  setFragmentShader(kVideoCapFilterSharpenFragmentShaderString);
  setVertexShader(kVideoCapFilterSharpenVertexShaderString);
  m_fFactor = 1.0f;
}

void VideoProcessSharpenFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  m_nImageWidthFactor = glGetUniformLocation(program, "imageWidthFactor");
  m_nImageHeightFactor = glGetUniformLocation(program, "imageHeightFactor");
  m_nSharpness = glGetUniformLocation(program, "sharpness");
}

void VideoProcessSharpenFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  // One texel each way, divided in double and rounded to float.
  const float widthFactor = static_cast<float>(1.0 / imgWidth());
  const float heightFactor = static_cast<float>(1.0 / imgHeight());
  glUniform1f(m_nImageWidthFactor, widthFactor);
  glUniform1f(m_nImageHeightFactor, heightFactor);
  glUniform1f(m_nSharpness, m_fFactor);
}

}  // namespace lumo
