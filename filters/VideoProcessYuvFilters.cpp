#include "VideoProcessYuvFilters.h"

#include <GLES2/gl2.h>

#include "YuvCoefficients.h"

namespace lumo {
namespace {

// Both conversions run at high precision: at mediump a 16-bit float carries only about 3 decimal digits,
// less than the 8-bit levels and matrix need.
const char* const kYuvToRgbFragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform sampler2D inputImageTexture2; "
    "uniform sampler2D inputImageTexture3; uniform vec2 lumaSize; uniform vec2 chromaSize; uniform vec2 "
    "chromaStep; uniform float interleaved; uniform vec4 rowR; uniform vec4 rowG; uniform vec4 rowB; void main() "
    "{ float y = texture2D(inputImageTexture, gl_FragCoord.xy / lumaSize).r; vec2 c = chromaStep * "
    "gl_FragCoord.xy / chromaSize; "
    "vec4 first = texture2D(inputImageTexture2, c); float cr = mix(texture2D(inputImageTexture3, c).r, first.a, "
    "interleaved); vec4 yuv = vec4(y, first.r, cr, 1.0); gl_FragColor = vec4(dot(yuv, rowR), dot(yuv, rowG), "
    "dot(yuv, rowB), 1.0); }";

// Component k of the texel at column x takes sample x * samplesPerTexel + sampleInTexel[k] and the affine row
// rows[k]; a sample is the mean of its block of pixels (2 x 2, or 2 x 1 for 4:2:2), whose corner texel
// centres are fetched (a block of one row fetches it twice).
const char* const kRgbToYuvFragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform vec2 sourceSize; uniform vec2 block; "
    "uniform float samplesPerTexel; uniform vec4 sampleInTexel; uniform mat4 rows; vec3 mean(float column, "
    "float row) { vec2 a = (vec2(column, row) * block + 0.5) / sourceSize; vec2 b = (vec2(column, row) * block "
    "+ block - 0.5) / sourceSize; return 0.25 * (texture2D(inputImageTexture, a).rgb + "
    "texture2D(inputImageTexture, vec2(b.x, a.y)).rgb + texture2D(inputImageTexture, vec2(a.x, b.y)).rgb + "
    "texture2D(inputImageTexture, b).rgb); } void main() { vec2 cell = floor(gl_FragCoord.xy); float first = "
    "cell.x * samplesPerTexel; gl_FragColor = vec4(dot(vec4(mean(first + sampleInTexel.x, cell.y), 1.0), "
    "rows[0]), dot(vec4(mean(first + sampleInTexel.y, cell.y), 1.0), rows[1]), dot(vec4(mean(first + "
    "sampleInTexel.z, cell.y), 1.0), rows[2]), dot(vec4(mean(first + sampleInTexel.w, cell.y), 1.0), rows[3])); }";

// Luma needs no block mean: one fetch a sample.
const char* const kRgbToLumaFragmentShaderString =
    "precision highp float; uniform sampler2D inputImageTexture; uniform vec2 sourceSize; uniform float "
    "samplesPerTexel; uniform vec4 sampleInTexel; uniform mat4 rows; vec3 at(float column, float row) { return "
    "texture2D(inputImageTexture, (vec2(column, row) + 0.5) / sourceSize).rgb; } void main() { vec2 cell = "
    "floor(gl_FragCoord.xy); float first = cell.x * samplesPerTexel; gl_FragColor = vec4(dot(vec4(at(first + "
    "sampleInTexel.x, cell.y), 1.0), rows[0]), dot(vec4(at(first + sampleInTexel.y, cell.y), 1.0), rows[1]), "
    "dot(vec4(at(first + sampleInTexel.z, cell.y), 1.0), rows[2]), dot(vec4(at(first + sampleInTexel.w, "
    "cell.y), 1.0), rows[3])); }";

}  // namespace

VideoProcessYuvToRgbFilter::VideoProcessYuvToRgbFilter() { setFragmentShader(kYuvToRgbFragmentShaderString); }

void VideoProcessYuvToRgbFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  chromaUniform_ = glGetUniformLocation(program, "inputImageTexture2");
  chroma2Uniform_ = glGetUniformLocation(program, "inputImageTexture3");
  lumaSizeUniform_ = glGetUniformLocation(program, "lumaSize");
  chromaSizeUniform_ = glGetUniformLocation(program, "chromaSize");
  chromaStepUniform_ = glGetUniformLocation(program, "chromaStep");
  interleavedUniform_ = glGetUniformLocation(program, "interleaved");
  rowsUniform_[0] = glGetUniformLocation(program, "rowR");
  rowsUniform_[1] = glGetUniformLocation(program, "rowG");
  rowsUniform_[2] = glGetUniformLocation(program, "rowB");
}

void VideoProcessYuvToRgbFilter::setFrame(uint32_t pixelFormat, int32_t width, int32_t height,
                                          YuvColorimetry colorimetry) {
  pixelFormat_ = pixelFormat;
  width_ = width;
  height_ = height;
  colorimetry_ = colorimetry;
}

void VideoProcessYuvToRgbFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform1i(chromaUniform_, 2);
  glUniform1i(chroma2Uniform_, 3);
  glUniform2f(lumaSizeUniform_, static_cast<float>(width_), static_cast<float>(height_));
  const PixelPlaneGeometry chroma = pixelFormatPlane(pixelFormat_, width_, height_, 1);
  glUniform2f(chromaSizeUniform_, static_cast<float>(chroma.width), static_cast<float>(chroma.height));
  // A chroma sample spans two pixels across, and two rows (4:2:0) or one (4:2:2) down.
  glUniform2f(chromaStepUniform_, 0.5f, 1.0f / static_cast<float>(pixelFormatChromaRows(pixelFormat_)));
  glUniform1f(interleavedUniform_, pixelFormat_ == kPixelFormatNV12 ? 1.0f : 0.0f);
  const YuvCoefficients::Rows rows = yuvCoefficients(colorimetry_).rgbFromYuv();
  for (int i = 0; i < 3; ++i) glUniform4fv(rowsUniform_[i], 1, rows[static_cast<size_t>(i)].data());
}

VideoProcessRgbToYuvFilter::VideoProcessRgbToYuvFilter(bool luma) {
  setFragmentShader(luma ? kRgbToLumaFragmentShaderString : kRgbToYuvFragmentShaderString);
}

void VideoProcessRgbToYuvFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  sourceSizeUniform_ = glGetUniformLocation(program, "sourceSize");
  blockUniform_ = glGetUniformLocation(program, "block");
  samplesPerTexelUniform_ = glGetUniformLocation(program, "samplesPerTexel");
  sampleInTexelUniform_ = glGetUniformLocation(program, "sampleInTexel");
  rowsUniform_ = glGetUniformLocation(program, "rows");
}

void VideoProcessRgbToYuvFilter::setPlane(Plane plane, int32_t width, int32_t height, int32_t chromaRows,
                                          YuvColorimetry colorimetry) {
  plane_ = plane;
  chromaRows_ = chromaRows;
  width_ = width;
  height_ = height;
  colorimetry_ = colorimetry;
}

void VideoProcessRgbToYuvFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  const YuvCoefficients::Rows rows = yuvCoefficients(colorimetry_).yuvFromRgb();
  // Which affine row (Y, Cb, Cr) each of the texel's four components takes, and which sample of the texel's group.
  size_t rowOf[4] = {0, 0, 0, 0};
  float sampleInTexel[4] = {0.0f, 1.0f, 2.0f, 3.0f};
  float samplesPerTexel = 4.0f;
  switch (plane_) {
    case Plane::Luma: break;
    case Plane::ChromaInterleaved:
      rowOf[0] = rowOf[2] = 1;
      rowOf[1] = rowOf[3] = 2;
      sampleInTexel[1] = 0.0f;
      sampleInTexel[2] = sampleInTexel[3] = 1.0f;
      samplesPerTexel = 2.0f;
      break;
    case Plane::Cb: rowOf[0] = rowOf[1] = rowOf[2] = rowOf[3] = 1; break;
    case Plane::Cr: rowOf[0] = rowOf[1] = rowOf[2] = rowOf[3] = 2; break;
  }
  float matrix[16];
  for (size_t k = 0; k < 4; ++k) {
    for (size_t i = 0; i < 4; ++i) matrix[4 * k + i] = rows[rowOf[k]][i];
  }
  glUniform2f(sourceSizeUniform_, static_cast<float>(width_), static_cast<float>(height_));
  if (plane_ == Plane::Luma) {
    glUniform2f(blockUniform_, 1.0f, 1.0f);
  } else {
    glUniform2f(blockUniform_, 2.0f, static_cast<float>(chromaRows_));
  }
  glUniform1f(samplesPerTexelUniform_, samplesPerTexel);
  glUniform4fv(sampleInTexelUniform_, 1, sampleInTexel);
  glUniformMatrix4fv(rowsUniform_, 1, GL_FALSE, matrix);
}

}  // namespace lumo
