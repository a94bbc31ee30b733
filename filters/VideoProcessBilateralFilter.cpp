#include "VideoProcessBilateralFilter.h"

#include <GLES2/gl2.h>

#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterBilateralVertexShaderString =
    "attribute vec4 position; attribute vec4 inputTextureCoordinate; const int GAUSSIAN_SAMPLES = 9; "
    "uniform float texelWidthOffset; uniform float texelHeightOffset; varying vec2 textureCoordinate; "
    "varying vec2 blurCoordinates[GAUSSIAN_SAMPLES]; void main() { gl_Position = position; "
    "textureCoordinate = inputTextureCoordinate.xy; int multiplier = 0; vec2 blurStep; vec2 "
    "singleStepOffset = vec2(texelWidthOffset, texelHeightOffset); for (int i = 0; i < GAUSSIAN_SAMPLES; "
    "i++) { multiplier = (i - ((GAUSSIAN_SAMPLES - 1) / 2)); blurStep = float(multiplier) * "
    "singleStepOffset; blurCoordinates[i] = inputTextureCoordinate.xy + blurStep; } }";

// Spatial weights 0.18 at the centre, then 0.05, 0.09, 0.12, 0.15 from the far side inwards; they sum to 1.
const char* const kVideoCapFilterBilateralFragmentShaderString =
    "uniform sampler2D inputImageTexture; uniform sampler2D inputImageTexture2; const lowp int "
    "GAUSSIAN_SAMPLES = 9; varying highp vec2 textureCoordinate; varying highp vec2 "
    "blurCoordinates[GAUSSIAN_SAMPLES]; uniform mediump float distanceNormalizationFactor; void main() { "
    "lowp vec4 centralColor; lowp float gaussianWeightTotal; lowp vec4 sum; lowp vec4 sampleColor; lowp "
    "float distanceFromCentralColor; lowp float gaussianWeight; lowp float minDistance = 1.0; "
    "centralColor = texture2D(inputImageTexture, blurCoordinates[4]); gaussianWeightTotal = 0.18; sum = "
    "centralColor * 0.18; sampleColor = texture2D(inputImageTexture2, blurCoordinates[0]); "
    "distanceFromCentralColor = min(distance(centralColor, sampleColor) * distanceNormalizationFactor, "
    "minDistance); gaussianWeight = 0.05 * (minDistance - distanceFromCentralColor); gaussianWeightTotal "
    "+= gaussianWeight; sum += sampleColor * gaussianWeight; sampleColor = texture2D(inputImageTexture2, "
    "blurCoordinates[1]); distanceFromCentralColor = min(distance(centralColor, sampleColor) * "
    "distanceNormalizationFactor, minDistance); gaussianWeight = 0.09 * (minDistance - "
    "distanceFromCentralColor); gaussianWeightTotal += gaussianWeight; sum += sampleColor * "
    "gaussianWeight; sampleColor = texture2D(inputImageTexture2, blurCoordinates[2]); "
    "distanceFromCentralColor = min(distance(centralColor, sampleColor) * distanceNormalizationFactor, "
    "minDistance); gaussianWeight = 0.12 * (minDistance - distanceFromCentralColor); gaussianWeightTotal "
    "+= gaussianWeight; sum += sampleColor * gaussianWeight; sampleColor = texture2D(inputImageTexture2, "
    "blurCoordinates[3]); distanceFromCentralColor = min(distance(centralColor, sampleColor) * "
    "distanceNormalizationFactor, minDistance); gaussianWeight = 0.15 * (minDistance - "
    "distanceFromCentralColor); gaussianWeightTotal += gaussianWeight; sum += sampleColor * "
    "gaussianWeight; sampleColor = texture2D(inputImageTexture2, blurCoordinates[5]); "
    "distanceFromCentralColor = min(distance(centralColor, sampleColor) * distanceNormalizationFactor, "
    "minDistance); gaussianWeight = 0.15 * (minDistance - distanceFromCentralColor); gaussianWeightTotal "
    "+= gaussianWeight; sum += sampleColor * gaussianWeight; sampleColor = texture2D(inputImageTexture2, "
    "blurCoordinates[6]); distanceFromCentralColor = min(distance(centralColor, sampleColor) * "
    "distanceNormalizationFactor, minDistance); gaussianWeight = 0.12 * (minDistance - "
    "distanceFromCentralColor); gaussianWeightTotal += gaussianWeight; sum += sampleColor * "
    "gaussianWeight; sampleColor = texture2D(inputImageTexture2, blurCoordinates[7]); "
    "distanceFromCentralColor = min(distance(centralColor, sampleColor) * distanceNormalizationFactor, "
    "minDistance); gaussianWeight = 0.09 * (minDistance - distanceFromCentralColor); gaussianWeightTotal "
    "+= gaussianWeight; sum += sampleColor * gaussianWeight; sampleColor = texture2D(inputImageTexture2, "
    "blurCoordinates[8]); distanceFromCentralColor = min(distance(centralColor, sampleColor) * "
    "distanceNormalizationFactor, minDistance); gaussianWeight = 0.05 * (minDistance - "
    "distanceFromCentralColor); gaussianWeightTotal += gaussianWeight; sum += sampleColor * "
    "gaussianWeight; gl_FragColor = sum / gaussianWeightTotal; }";

VideoProcessBilateralFilter::VideoProcessBilateralFilter() {
  setFragmentShader(kVideoCapFilterBilateralFragmentShaderString);
  setVertexShader(kVideoCapFilterBilateralVertexShaderString);
}

void VideoProcessBilateralFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  m_nWidthOffsetUniform = glGetUniformLocation(program, "texelWidthOffset");
  m_nHeightOffsetUniform = glGetUniformLocation(program, "texelHeightOffset");
  m_nDistanceNormalizationFactorUniform = glGetUniformLocation(program, "distanceNormalizationFactor");
  step_ = 3.0f;
  distance_normalization_factor_ = 4.0f;
  m_nFrameUniform2 = glGetUniformLocation(program, "inputImageTexture2");
}

void VideoProcessBilateralFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  float widthOffset = 0.0f;
  float heightOffset = 0.0f;
  if (pass == 2) {
    heightOffset = step_ / static_cast<float>(imgHeight());
  } else {
    widthOffset = step_ / static_cast<float>(imgWidth());
  }
  glUniform1f(m_nWidthOffsetUniform, widthOffset);
  glUniform1f(m_nHeightOffsetUniform, heightOffset);
  glUniform1f(m_nDistanceNormalizationFactorUniform, distance_normalization_factor_);
  glUniform1i(m_nFrameUniform2, 2);
}

}  // namespace lumo
