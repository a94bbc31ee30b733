#include "VideoProcessRegionFilter.h"

#include <GLES2/gl2.h>

namespace lumo {
namespace {

const char* const kRegionFragmentShaderString =
    "precision highp float; varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; uniform "
    "sampler2D inputImageTexture2; void main() { vec4 skin = texture2D(inputImageTexture, textureCoordinate); "
    "gl_FragColor = vec4(skin.rgb, skin.a * texture2D(inputImageTexture2, textureCoordinate).a); }";

}  // namespace

VideoProcessRegionFilter::VideoProcessRegionFilter() { setFragmentShader(kRegionFragmentShaderString); }

void VideoProcessRegionFilter::initUniforms(uint32_t program) {
  VideoProcessFilter::initUniforms(program);
  regionUniform_ = glGetUniformLocation(program, "inputImageTexture2");
}

void VideoProcessRegionFilter::setUniforms(int32_t pass) {
  VideoProcessFilter::setUniforms(pass);
  glUniform1i(regionUniform_, 2);
}

}  // namespace lumo
