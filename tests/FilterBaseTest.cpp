// The filter base without GL: construction and crop geometry make no GL call.
#include <lumo/lumo.h>

#include <gtest/gtest.h>

#include <array>
#include <cmath>

namespace lumo {
namespace {

TEST(FilterBase, FreshState) {
  VideoProcessFilter filter;
  EXPECT_EQ(filter.imgWidth(), 1);
  EXPECT_EQ(filter.imgHeight(), 1);
  EXPECT_EQ(filter.program(), 0u);
  EXPECT_EQ(filter.vertexShader(), kVideoCapFilterVertexShaderString);
  EXPECT_TRUE(filter.fragmentShader().empty());
  EXPECT_EQ(filter.vertices(), (std::array<float, 8>{-1, -1, 1, -1, -1, 1, 1, 1}));
  EXPECT_EQ(filter.texCoords(), (std::array<float, 8>{0, 0, 1, 0, 0, 1, 1, 1}));
  EXPECT_EQ(filter.doChangeFormat(77, 640, 480, nullptr), 0);
  EXPECT_EQ(filter.imgWidth(), 640);
  EXPECT_EQ(filter.imgHeight(), 480);
}

TEST(FilterBase, CommonVertexText) {
  EXPECT_STREQ(kVideoCapFilterVertexShaderString,
               "attribute vec4 position; attribute vec4 texcoord; varying vec2 textureCoordinate; void main() { "
               "gl_Position = position; textureCoordinate = texcoord.xy; }");
}

TEST(FilterBase, CropCutsTheOverflowingAxis) {
  VideoProcessFilter filter;
  const std::array<float, 8> topFirst{-1, 1, 1, 1, -1, -1, 1, -1};

  // Wider image than view: s is cut, t stays 0..1.
  EXPECT_EQ(filter.setCropModeVerticesAndTexCoord(1280, 720, 720, 1280), 0);
  EXPECT_EQ(filter.vertices(), topFirst);
  EXPECT_EQ(filter.texCoords(),
            (std::array<float, 8>{0.341796875f, 1, 0.658203125f, 1, 0.341796875f, 0, 0.658203125f, 0}));

  filter.setCropModeVerticesAndTexCoord(480, 640, 720, 1280);
  EXPECT_EQ(filter.texCoords(), (std::array<float, 8>{0.125f, 1, 0.875f, 1, 0.125f, 0, 0.875f, 0}));

  // Taller image than view: t is cut, s stays 0..1.
  filter.setCropModeVerticesAndTexCoord(720, 1280, 1280, 720);
  const auto& tall = filter.texCoords();
  EXPECT_EQ(tall[0], 0.0f);
  EXPECT_EQ(tall[2], 1.0f);
  EXPECT_GT(tall[5], 0.0f);
  EXPECT_LT(tall[1], 1.0f);

  filter.setCropModeVerticesAndTexCoord(640, 480, 640, 480);
  EXPECT_EQ(filter.texCoords(), (std::array<float, 8>{0, 1, 1, 1, 0, 0, 1, 0}));
  EXPECT_EQ(filter.imgWidth(), 1) << "crop does not change the image size";
}

TEST(FilterBase, CropWithZeroHeightIsNotGuarded) {
  VideoProcessFilter filter;
  // Image aspect is infinite and wider than the view: sx = 0 * V / W = 0, so s runs 0.5..0.5.
  filter.setCropModeVerticesAndTexCoord(640, 0, 640, 480);
  EXPECT_EQ(filter.texCoords()[0], 0.5f);
  // View height 0: the view aspect is infinite, the else branch divides by it, t collapses to 0.5.
  filter.setCropModeVerticesAndTexCoord(640, 480, 640, 0);
  EXPECT_EQ(filter.texCoords()[1], 0.5f);
  // Both zero: NaN aspects take the else branch and give non-finite coordinates.
  filter.setCropModeVerticesAndTexCoord(0, 0, 0, 0);
  EXPECT_TRUE(std::isnan(filter.texCoords()[1]));
}

TEST(FilterBase, SubclassesInstallTheirTextsAndDefaults) {
  VideoProcessAlphaBlendFilter blend;
  EXPECT_EQ(blend.alpha(), 0.5f);
  EXPECT_EQ(blend.fragmentShader(), kVideoCapFilterAlphaBlendFragmentShaderString);
  EXPECT_EQ(blend.vertexShader(), kVideoCapFilterVertexShaderString);
  VideoProcessSharpenFilter sharpen;
  EXPECT_EQ(sharpen.vertexShader(), kVideoCapFilterSharpenVertexShaderString);
  VideoProcessBilateralFilter bilateral;
  EXPECT_EQ(bilateral.vertexShader(), kVideoCapFilterBilateralVertexShaderString);
  EXPECT_EQ(bilateral.fragmentShader(), kVideoCapFilterBilateralFragmentShaderString);
  VideoProcessOverlayFilter overlay;
  EXPECT_EQ(overlay.srcDirection(), 0.0f);
  EXPECT_EQ(overlay.multifyVal(), 0.0f);
  EXPECT_EQ(overlay.overlayVal(), 0.0f);
  VideoProcessGaussianBlurFilter blur;
  EXPECT_EQ(blur.stepOffset(), 4.0f);
  EXPECT_EQ(blur.vertexShader(), VideoProcessGaussianBlurFilter::vertexShaderForOptimizedBlurOfRadius(4, 2.0));
}

}  // namespace
}  // namespace lumo
