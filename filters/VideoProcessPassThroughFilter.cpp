#include "VideoProcessPassThroughFilter.h"

#include "Shaders.h"

namespace lumo {

const char* const kVideoCapFilterPassThroughFragmentShaderString =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; void main() { gl_FragColor = "
    "texture2D(inputImageTexture, textureCoordinate); }";

VideoProcessPassThroughFilter::VideoProcessPassThroughFilter() {
  setFragmentShader(kVideoCapFilterPassThroughFragmentShaderString);
}

}  // namespace lumo
