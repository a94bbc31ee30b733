#include "VideoProcessSkinDetectFilter.h"

#include "Shaders.h"

namespace lumo {

// The thresholds are about 50/255, 40/255 and 20/255 written to five decimals; the rounding decides the
// boundary levels (red passes from 51, green from 40, blue from 20), so they stay as written.
const char* const kVideoCapFilterSkinDetectFragmentShaderString =
    "varying highp vec2 textureCoordinate; uniform sampler2D inputImageTexture; void main() { lowp vec4 "
    "textureColor = texture2D(inputImageTexture, textureCoordinate); if(textureColor.r > 0.19608 && "
    "textureColor.g > 0.15686 && textureColor.b > 0.07843) { } else { textureColor.a = 0.0; } gl_FragColor = "
    "textureColor; }";

VideoProcessSkinDetectFilter::VideoProcessSkinDetectFilter() {
  setFragmentShader(kVideoCapFilterSkinDetectFragmentShaderString);
}

}  // namespace lumo
