#include "VideoProcessGaussianBlurFilter.h"

#include <GLES2/gl2.h>

#include "BeautifySettings.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

namespace lumo {
namespace {

void appendFormat(std::string& text, const char* format, ...) __attribute__((format(printf, 2, 3)));

void appendFormat(std::string& text, const char* format, ...) {
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  const int length = std::vsnprintf(nullptr, 0, format, copy);
  va_end(copy);
  if (length > 0) {
    const size_t start = text.size();
    text.resize(start + static_cast<size_t>(length) + 1);
    std::vsnprintf(&text[start], static_cast<size_t>(length) + 1, format, args);
    text.resize(start + static_cast<size_t>(length));
  }
  va_end(args);
}

size_t pairCount(size_t radius) { return radius / 2 + radius % 2; }

// Weighted centre of taps a = 2k + 1 and b = 2k + 2, in steps from the centre.
float pairOffset(const std::vector<float>& weights, size_t pair) {
  const size_t a = 2 * pair + 1;
  const size_t b = 2 * pair + 2;
  float p = static_cast<float>(a) * weights[a];
  const float q = weights[a] + weights[b];
  p = p + static_cast<float>(b) * weights[b];
  return p / q;
}

float pairWeight(const std::vector<float>& weights, size_t pair) {
  return weights[2 * pair + 1] + weights[2 * pair + 2];
}

void appendVertexHeader(std::string& text, size_t coordinates) {
  appendFormat(text,
               "     attribute vec4 position;\n     attribute vec4 inputTextureCoordinate;\n     \n     uniform "
               "float texelWidthOffset;\n     uniform float texelHeightOffset;\n     \n     varying vec2 "
               "blurCoordinates[%lu];\n     \n     void main()\n     {\n     gl_Position = position;\n     \n     "
               "vec2 singleStepOffset = vec2(texelWidthOffset, texelHeightOffset);\n",
               static_cast<unsigned long>(coordinates));
}

constexpr const char* kFragmentFooter = "     gl_FragColor = sum;\n     }\n";

}  // namespace

VideoProcessGaussianBlurFilter::VideoProcessGaussianBlurFilter() {
  const auto radius = static_cast<size_t>(_blurRadius);
  setVertexShader(vertexShaderForOptimizedBlurOfRadius(radius, static_cast<double>(_sigma)));
  setFragmentShader(fragmentShaderForOptimizedBlurOfRadius(radius, static_cast<double>(_sigma)));
}

void VideoProcessGaussianBlurFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  m_nWidthOffsetUniform = glGetUniformLocation(program, "texelWidthOffset");
  m_nHeightOffsetUniform = glGetUniformLocation(program, "texelHeightOffset");
}

void VideoProcessGaussianBlurFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  float widthOffset = 0.0f;
  float heightOffset = 0.0f;
  if (pass == 2) {
    heightOffset = _stepOffset / static_cast<float>(imgHeight());
  } else {
    widthOffset = _stepOffset / static_cast<float>(imgWidth());
  }
  glUniform1f(m_nWidthOffsetUniform, widthOffset);
  glUniform1f(m_nHeightOffsetUniform, heightOffset);
}

void VideoProcessGaussianBlurFilter::setBlurRadisAndSigma(float radius, float sigma) {
  if (radius == _blurRadius && sigma == _sigma) return;
  _blurRadius = radius;
  _sigma = sigma;
  // Outside the generators' preconditions (negative radius, sigma not above zero) the kernel is clamped to
  // the identity rather than generating texts of non-numbers.
  const auto wholeRadius = radius > 0.0f ? static_cast<size_t>(radius) : size_t{0};
  const double wideSigma = sigma > 0.0f ? static_cast<double>(sigma) : 1.0;
  setVertexShader(vertexShaderForOptimizedBlurOfRadius(wholeRadius, wideSigma));
  setFragmentShader(fragmentShaderForOptimizedBlurOfRadius(wholeRadius, wideSigma));
  uninitProgram();
  initProgram();
}

std::string VideoProcessGaussianBlurFilter::vertexShaderForStandardBlurOfRadius(size_t radius, double /*sigma*/) {
  std::string text;
  appendVertexHeader(text, 2 * radius + 1);
  for (size_t i = 0; i <= 2 * radius; ++i) {
    const long index = static_cast<long>(i);
    if (i < radius) {
      appendFormat(text, "blurCoordinates[%ld] = inputTextureCoordinate.xy - singleStepOffset * %f;\n", index,
                   static_cast<double>(static_cast<float>(radius - i)));
    } else if (i == radius) {
      appendFormat(text, "blurCoordinates[%ld] = inputTextureCoordinate.xy;\n", index);
    } else {
      appendFormat(text, "blurCoordinates[%ld] = inputTextureCoordinate.xy + singleStepOffset * %f;\n", index,
                   static_cast<double>(static_cast<float>(i - radius)));
    }
  }
  text += "}\n";
  return text;
}

std::string VideoProcessGaussianBlurFilter::fragmentShaderForStandardBlurOfRadius(size_t radius, double sigma) {
  const std::vector<float> weights = gaussianWeights(radius, sigma);
  std::string text;
  appendFormat(text,
               "     uniform sampler2D inputImageTexture;\n     \n     varying highp vec2 blurCoordinates[%lu];\n"
               "     \n     void main()\n     {\n     lowp vec4 sum = vec4(0.0);\n",
               static_cast<unsigned long>(2 * radius + 1));
  for (size_t i = 0; i <= 2 * radius; ++i) {
    const size_t distance = i < radius ? radius - i : i - radius;
    appendFormat(text, "sum += texture2D(inputImageTexture, blurCoordinates[%lu]) * %f;\n",
                 static_cast<unsigned long>(i), static_cast<double>(weights[distance]));
  }
  text += kFragmentFooter;
  return text;
}

std::string VideoProcessGaussianBlurFilter::vertexShaderForOptimizedBlurOfRadius(size_t radius, double sigma) {
  const std::vector<float> weights = gaussianWeights(radius, sigma);
  const size_t pairs = std::min<size_t>(pairCount(radius), 7);
  std::string text;
  appendVertexHeader(text, 2 * pairs + 1);
  text += "blurCoordinates[0] = inputTextureCoordinate.xy;\n";
  for (size_t k = 0; k < pairs; ++k) {
    const double offset = static_cast<double>(pairOffset(weights, k));
    appendFormat(text,
                 "         blurCoordinates[%lu] = inputTextureCoordinate.xy + singleStepOffset * %f;\n"
                 "         blurCoordinates[%lu] = inputTextureCoordinate.xy - singleStepOffset * %f;\n",
                 static_cast<unsigned long>(2 * k + 1), offset, static_cast<unsigned long>(2 * k + 2), offset);
  }
  text += "}\n";
  return text;
}

std::string VideoProcessGaussianBlurFilter::fragmentShaderForOptimizedBlurOfRadius(size_t radius, double sigma) {
  const std::vector<float> weights = gaussianWeights(radius, sigma);
  const size_t allPairs = pairCount(radius);
  const size_t pairs = std::min<size_t>(allPairs, 7);
  std::string text;
  appendFormat(text,
               "     uniform sampler2D inputImageTexture;\n     uniform highp float texelWidthOffset;\n     "
               "uniform highp float texelHeightOffset;\n     \n     varying highp vec2 blurCoordinates[%lu];\n"
               "     \n     void main()\n     {\n     lowp vec4 sum = vec4(0.0);\n",
               static_cast<unsigned long>(2 * pairs + 1));
  appendFormat(text, "sum += texture2D(inputImageTexture, blurCoordinates[0]) * %f;\n",
               static_cast<double>(weights[0]));
  for (size_t k = 0; k < pairs; ++k) {
    const double weight = static_cast<double>(pairWeight(weights, k));
    appendFormat(text, "sum += texture2D(inputImageTexture, blurCoordinates[%lu]) * %f;\n",
                 static_cast<unsigned long>(2 * k + 1), weight);
    appendFormat(text, "sum += texture2D(inputImageTexture, blurCoordinates[%lu]) * %f;\n",
                 static_cast<unsigned long>(2 * k + 2), weight);
  }
  if (allPairs > pairs) {
    text += "highp vec2 singleStepOffset = vec2(texelWidthOffset, texelHeightOffset);\n";
    for (size_t k = pairs; k < allPairs; ++k) {
      const double offset = static_cast<double>(pairOffset(weights, k));
      const double weight = static_cast<double>(pairWeight(weights, k));
      appendFormat(text, "sum += texture2D(inputImageTexture, blurCoordinates[0] + singleStepOffset * %f) * %f;\n",
                   offset, weight);
      appendFormat(text, "sum += texture2D(inputImageTexture, blurCoordinates[0] - singleStepOffset * %f) * %f;\n",
                   offset, weight);
    }
  }
  text += kFragmentFooter;
  return text;
}

}  // namespace lumo
