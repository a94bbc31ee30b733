// The generated blur texts, byte for byte where the values are known.
#include <lumo/lumo.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace lumo {
namespace {

using Blur = VideoProcessGaussianBlurFilter;

size_t count(const std::string& text, const std::string& piece) {
  size_t n = 0;
  for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
  return n;
}

TEST(GaussianGenerator, RadiusOneIsThePipelineKernel) {
  EXPECT_EQ(Blur::fragmentShaderForOptimizedBlurOfRadius(1, 2.0),
            "     uniform sampler2D inputImageTexture;\n     uniform highp float texelWidthOffset;\n     uniform "
            "highp float texelHeightOffset;\n     \n     varying highp vec2 blurCoordinates[3];\n     \n     void "
            "main()\n     {\n     lowp vec4 sum = vec4(0.0);\n"
            "sum += texture2D(inputImageTexture, blurCoordinates[0]) * 0.361665;\n"
            "sum += texture2D(inputImageTexture, blurCoordinates[1]) * 0.319168;\n"
            "sum += texture2D(inputImageTexture, blurCoordinates[2]) * 0.319168;\n"
            "     gl_FragColor = sum;\n     }\n");
  EXPECT_EQ(Blur::vertexShaderForOptimizedBlurOfRadius(1, 2.0),
            "     attribute vec4 position;\n     attribute vec4 inputTextureCoordinate;\n     \n     uniform float "
            "texelWidthOffset;\n     uniform float texelHeightOffset;\n     \n     varying vec2 "
            "blurCoordinates[3];\n     \n     void main()\n     {\n     gl_Position = position;\n     \n     vec2 "
            "singleStepOffset = vec2(texelWidthOffset, texelHeightOffset);\n"
            "blurCoordinates[0] = inputTextureCoordinate.xy;\n"
            "         blurCoordinates[1] = inputTextureCoordinate.xy + singleStepOffset * 1.000000;\n"
            "         blurCoordinates[2] = inputTextureCoordinate.xy - singleStepOffset * 1.000000;\n}\n");
}

TEST(GaussianGenerator, RadiusFourWeightsAndOffsets) {
  const std::string fragment = Blur::fragmentShaderForOptimizedBlurOfRadius(4, 2.0);
  EXPECT_NE(fragment.find("blurCoordinates[5];"), std::string::npos);
  EXPECT_NE(fragment.find("blurCoordinates[0]) * 0.204164;"), std::string::npos);
  EXPECT_EQ(count(fragment, "* 0.304005;"), 2u);
  EXPECT_EQ(count(fragment, "* 0.093913;"), 2u);
  const std::string vertex = Blur::vertexShaderForOptimizedBlurOfRadius(4, 2.0);
  EXPECT_EQ(count(vertex, "singleStepOffset * 1.407333;"), 2u);
  EXPECT_EQ(count(vertex, "singleStepOffset * 3.294215;"), 2u);
  const std::string standard = Blur::fragmentShaderForStandardBlurOfRadius(4, 2.0);
  for (const char* weight : {"0.204164", "0.180174", "0.123832", "0.066282", "0.027631"}) {
    EXPECT_NE(standard.find(weight), std::string::npos) << weight;
  }
}

TEST(GaussianGenerator, RadiusZeroIsOneFetchOfWeightOne) {
  const std::string fragment = Blur::fragmentShaderForOptimizedBlurOfRadius(0, 3.0);
  EXPECT_NE(fragment.find("blurCoordinates[1];"), std::string::npos);
  EXPECT_EQ(count(fragment, "texture2D("), 1u);
  EXPECT_NE(fragment.find("* 1.000000;"), std::string::npos);
  EXPECT_NE(
      Blur::vertexShaderForOptimizedBlurOfRadius(0, 3.0).find("blurCoordinates[0] = inputTextureCoordinate.xy;\n}\n"),
      std::string::npos);
}

TEST(GaussianGenerator, OuterPairsBeyondTheSeventh) {
  const std::string r14 = Blur::fragmentShaderForOptimizedBlurOfRadius(14, 5.0);
  EXPECT_NE(r14.find("blurCoordinates[15];"), std::string::npos);
  EXPECT_EQ(count(r14, "texture2D("), 15u);
  EXPECT_EQ(r14.find("singleStepOffset"), std::string::npos);

  const std::string r15 = Blur::fragmentShaderForOptimizedBlurOfRadius(15, 5.0);
  EXPECT_NE(r15.find("blurCoordinates[15];"), std::string::npos);
  EXPECT_EQ(count(r15, "texture2D("), 17u);
  EXPECT_NE(r15.find("highp vec2 singleStepOffset = vec2(texelWidthOffset, texelHeightOffset);\n"), std::string::npos);
  EXPECT_NE(r15.find("blurCoordinates[0] + singleStepOffset * 15.000000) * "), std::string::npos);
  EXPECT_NE(r15.find("blurCoordinates[0] - singleStepOffset * 15.000000) * "), std::string::npos);

  const std::string r16 = Blur::fragmentShaderForOptimizedBlurOfRadius(16, 5.0);
  EXPECT_EQ(count(r16, "texture2D("), 17u);
  const std::regex outer(R"(blurCoordinates\[0\] \+ singleStepOffset \* (\d+\.\d{6})\) \* (\d+\.\d{6});)");
  std::smatch match;
  ASSERT_TRUE(std::regex_search(r16, match, outer));
  const double offset = std::stod(match[1]);
  EXPECT_GT(offset, 15.0);
  EXPECT_LT(offset, 16.0);
  EXPECT_NE(Blur::vertexShaderForOptimizedBlurOfRadius(16, 5.0).find("blurCoordinates[15];"), std::string::npos);
}

TEST(GaussianGenerator, StandardPairListsTwoRPlusOneTaps) {
  for (size_t r : {0u, 1u, 4u, 14u, 15u, 16u}) {
    const std::string vertex = Blur::vertexShaderForStandardBlurOfRadius(r, 2.0);
    const std::string fragment = Blur::fragmentShaderForStandardBlurOfRadius(r, 2.0);
    const std::string size = "blurCoordinates[" + std::to_string(2 * r + 1) + "];";
    EXPECT_NE(vertex.find(size), std::string::npos) << r;
    EXPECT_NE(fragment.find(size), std::string::npos) << r;
    EXPECT_EQ(count(vertex, "\nblurCoordinates["), 2 * r + 1) << r;
    EXPECT_EQ(count(fragment, "texture2D("), 2 * r + 1) << r;
  }
  const std::string vertex = Blur::vertexShaderForStandardBlurOfRadius(1, 2.0);
  EXPECT_NE(vertex.find("blurCoordinates[0] = inputTextureCoordinate.xy - singleStepOffset * 1.000000;\n"
                        "blurCoordinates[1] = inputTextureCoordinate.xy;\n"
                        "blurCoordinates[2] = inputTextureCoordinate.xy + singleStepOffset * 1.000000;\n}\n"),
            std::string::npos);
  const std::string fragment = Blur::fragmentShaderForStandardBlurOfRadius(1, 2.0);
  EXPECT_NE(fragment.find("blurCoordinates[0]) * 0.319168;\nsum += texture2D(inputImageTexture, "
                          "blurCoordinates[1]) * 0.361665;\nsum += texture2D(inputImageTexture, "
                          "blurCoordinates[2]) * 0.319168;\n     gl_FragColor = sum;\n     }\n"),
            std::string::npos);
}

}  // namespace
}  // namespace lumo
