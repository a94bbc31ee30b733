#include "VideoProcessPackedFilters.h"

#include <GLES2/gl2.h>

#include "YuvCoefficients.h"

namespace lumo {
namespace {

// At high precision, as the planar conversions: byte and pixel indices of a wide row and the 8-bit levels
// through the matrix both need more than a 16-bit float carries.
const char* const kPackedYuvToRgbFragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform vec2 planeSize; uniform vec4 lumaEven; "
    "uniform vec4 lumaOdd; uniform vec4 cbOf; uniform vec4 crOf; uniform vec4 rowR; uniform vec4 rowG; uniform "
    "vec4 rowB; void main() { float x = floor(gl_FragCoord.x); float pair = floor(0.5 * x); float v = "
    "gl_FragCoord.y / planeSize.y; vec4 own = texture2D(inputImageTexture, vec2((pair + 0.5) / planeSize.x, v)); "
    "vec4 around = texture2D(inputImageTexture, vec2(0.5 * gl_FragCoord.x / planeSize.x, v)); vec4 yuv = "
    "vec4(dot(own, mix(lumaEven, lumaOdd, x - 2.0 * pair)), dot(around, cbOf), dot(around, crOf), 1.0); "
    "gl_FragColor = vec4(dot(yuv, rowR), dot(yuv, rowG), dot(yuv, rowB), 1.0); }";

// Texel x takes pixels 2x and 2x + 1 (clamped to the last at an odd edge); UYVY is YUY2's samples swapped in
// pairs.
const char* const kRgbToPackedYuvFragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform vec2 sourceSize; uniform vec4 rowY; "
    "uniform vec4 rowCb; uniform vec4 rowCr; uniform float uyvy; void main() { vec2 cell = "
    "floor(gl_FragCoord.xy); float v = (cell.y + 0.5) / sourceSize.y; vec3 a = texture2D(inputImageTexture, "
    "vec2((2.0 * cell.x + 0.5) / sourceSize.x, v)).rgb; vec3 b = texture2D(inputImageTexture, vec2((2.0 * "
    "cell.x + 1.5) / sourceSize.x, v)).rgb; vec4 mean = vec4(0.5 * (a + b), 1.0); vec4 samples = "
    "vec4(dot(vec4(a, 1.0), rowY), dot(mean, rowCb), dot(vec4(b, 1.0), rowY), dot(mean, rowCr)); gl_FragColor "
    "= mix(samples, samples.yxwz, uyvy); }";

// The texture's first three components are the buffer's bytes: B, G, R for BGR.
const char* const kRgb24ToRgbFragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform vec2 size; uniform float rgbOrder; void "
    "main() { vec3 c = texture2D(inputImageTexture, gl_FragCoord.xy / size).rgb; gl_FragColor = vec4(mix(c.bgr, "
    "c, rgbOrder), 1.0); }";

// Byte b of a row is channel b mod 3 of pixel b / 3; a texel's four bytes span at most two pixels, fetched
// once per byte for plainness. Indices carry half a step, so that the divisions floor cleanly.
const char* const kRgbToRgb24FragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform vec2 sourceSize; uniform float "
    "rgbOrder; float byteAt(float b, float v) { float p = floor((b + 0.5) / 3.0); vec3 c = "
    "texture2D(inputImageTexture, vec2((p + 0.5) / sourceSize.x, v)).rgb; return dot(mix(c.bgr, c, rgbOrder), "
    "max(1.0 - abs(vec3(b - 3.0 * p) - vec3(0.0, 1.0, 2.0)), 0.0)); } void main() { vec2 cell = "
    "floor(gl_FragCoord.xy); float v = (cell.y + 0.5) / sourceSize.y; float first = 4.0 * cell.x; gl_FragColor "
    "= vec4(byteAt(first, v), byteAt(first + 1.0, v), byteAt(first + 2.0, v), byteAt(first + 3.0, v)); }";

}  // namespace

VideoProcessPackedYuvToRgbFilter::VideoProcessPackedYuvToRgbFilter() {
  setFragmentShader(kPackedYuvToRgbFragmentShaderString);
}

void VideoProcessPackedYuvToRgbFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  planeSizeUniform_ = glGetUniformLocation(program, "planeSize");
  pickUniforms_[0] = glGetUniformLocation(program, "lumaEven");
  pickUniforms_[1] = glGetUniformLocation(program, "lumaOdd");
  pickUniforms_[2] = glGetUniformLocation(program, "cbOf");
  pickUniforms_[3] = glGetUniformLocation(program, "crOf");
  rowsUniform_[0] = glGetUniformLocation(program, "rowR");
  rowsUniform_[1] = glGetUniformLocation(program, "rowG");
  rowsUniform_[2] = glGetUniformLocation(program, "rowB");
}

void VideoProcessPackedYuvToRgbFilter::setFrame(uint32_t pixelFormat, int32_t width, int32_t height,
                                                YuvColorimetry colorimetry) {
  pixelFormat_ = pixelFormat;
  width_ = width;
  height_ = height;
  colorimetry_ = colorimetry;
}

void VideoProcessPackedYuvToRgbFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  const PixelPlaneGeometry plane = pixelFormatPlane(pixelFormat_, width_, height_, 0);
  glUniform2f(planeSizeUniform_, static_cast<float>(plane.width), static_cast<float>(plane.height));
  // The texel component each sample sits in: Y0 U Y1 V, or U Y0 V Y1.
  const bool uyvy = pixelFormat_ == kPixelFormatUYVY;
  const int component[4] = {uyvy ? 1 : 0, uyvy ? 3 : 2, uyvy ? 0 : 1, uyvy ? 2 : 3};
  for (int i = 0; i < 4; ++i) {
    float pick[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    pick[component[i]] = 1.0f;
    glUniform4fv(pickUniforms_[i], 1, pick);
  }
  const YuvCoefficients::Rows rows = yuvCoefficients(colorimetry_).rgbFromYuv();
  for (int i = 0; i < 3; ++i) glUniform4fv(rowsUniform_[i], 1, rows[static_cast<size_t>(i)].data());
}

VideoProcessRgbToPackedYuvFilter::VideoProcessRgbToPackedYuvFilter() {
  setFragmentShader(kRgbToPackedYuvFragmentShaderString);
}

void VideoProcessRgbToPackedYuvFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  sourceSizeUniform_ = glGetUniformLocation(program, "sourceSize");
  rowsUniform_[0] = glGetUniformLocation(program, "rowY");
  rowsUniform_[1] = glGetUniformLocation(program, "rowCb");
  rowsUniform_[2] = glGetUniformLocation(program, "rowCr");
  uyvyUniform_ = glGetUniformLocation(program, "uyvy");
}

void VideoProcessRgbToPackedYuvFilter::setFrame(uint32_t pixelFormat, int32_t width, int32_t height,
                                                YuvColorimetry colorimetry) {
  pixelFormat_ = pixelFormat;
  width_ = width;
  height_ = height;
  colorimetry_ = colorimetry;
}

void VideoProcessRgbToPackedYuvFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform2f(sourceSizeUniform_, static_cast<float>(width_), static_cast<float>(height_));
  const YuvCoefficients::Rows rows = yuvCoefficients(colorimetry_).yuvFromRgb();
  for (int i = 0; i < 3; ++i) glUniform4fv(rowsUniform_[i], 1, rows[static_cast<size_t>(i)].data());
  glUniform1f(uyvyUniform_, pixelFormat_ == kPixelFormatUYVY ? 1.0f : 0.0f);
}

VideoProcessRgb24Filter::VideoProcessRgb24Filter(const char* fragmentShader, const char* sizeName)
    : sizeName_(sizeName) {
  setFragmentShader(fragmentShader);
}

void VideoProcessRgb24Filter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  sizeUniform_ = glGetUniformLocation(program, sizeName_);
  rgbOrderUniform_ = glGetUniformLocation(program, "rgbOrder");
}

void VideoProcessRgb24Filter::setFrame(uint32_t pixelFormat, int32_t width, int32_t height) {
  pixelFormat_ = pixelFormat;
  width_ = width;
  height_ = height;
}

void VideoProcessRgb24Filter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform2f(sizeUniform_, static_cast<float>(width_), static_cast<float>(height_));
  glUniform1f(rgbOrderUniform_, pixelFormat_ == kPixelFormat24RGB ? 1.0f : 0.0f);
}

VideoProcessRgb24ToRgbFilter::VideoProcessRgb24ToRgbFilter()
    : VideoProcessRgb24Filter(kRgb24ToRgbFragmentShaderString, "size") {}

VideoProcessRgbToRgb24Filter::VideoProcessRgbToRgb24Filter()
    : VideoProcessRgb24Filter(kRgbToRgb24FragmentShaderString, "sourceSize") {}

}  // namespace lumo
